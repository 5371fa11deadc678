"""The HDF5 layout as h5py sees it: files we write are readable with h5py
alone, and a file written by the documented layout with h5py loads in C++."""

import json
import os
import subprocess

import h5py
import numpy as np
import pytest

HELPER = os.environ.get("QUARIL_INTEROP_HELPER", "")


def run_helper(*args):
    result = subprocess.run([HELPER, *args], capture_output=True, text=True, check=False)
    assert result.returncode == 0, result.stderr
    return result.stdout


def texts(index, blob, ends):
    """The byte strings stored one after another in `blob`, ending at `ends`."""
    data, ends = index[blob][...].tobytes(), index[ends][...]
    return [data[(0 if i == 0 else ends[i - 1]):ends[i]] for i in range(len(ends))]


def fields_of(structure):
    """Every field of a grid's structure: name -> (type, fragment descriptions)."""
    return {field["name"]: (field["type"], field["fragments"])
            for skeleton in json.loads(structure)["skeletons"]
            for rep in skeleton["representations"] for field in rep["fields"]}


@pytest.fixture
def saved(tmp_path):
    path = tmp_path / "sample.qb.h5"
    run_helper("write", str(path))
    return path


def test_h5py_reads_times_names_and_values_we_wrote(saved):
    with h5py.File(saved, "r") as f:
        assert f.attrs["format"] == "quaril-bundle"
        assert list(f.attrs["version"]) == [1, 1]
        index = f["index"]
        times = index["times"][...]
        names = [name.decode() for name in texts(index, "grid_names", "grid_name_ends")]
        structures = texts(index, "structures", "structure_ends")
        assert list(times) == [1.0, 2.0, 3.0, 4.0]
        entries = index["entries"][...]
        assert {(times[t], names[g]) for t, g, _ in entries} >= {(1.0, "points"), (4.0, "surface")}
        assert len(entries) == 9
        begins = index["checksum_begins"][...]
        assert len(begins) == 10 and begins[-1] == len(index["array_checksums"])
        assert len(structures) < 9, "equal structures are stored once"
        for row, (t, g, s) in enumerate(entries):
            def array(description):
                return f["arrays"][f"{row}.{description['dataset']}"][...]
            if names[g] == "points" and times[t] == 3.0:
                kind, fragments = fields_of(structures[s])["mass"]
                assert kind == "double"
                assert list(array(fragments[0])) == [3.0, 6.0, 9.0]
            if names[g] == "uniform" and times[t] == 1.0:
                fields = fields_of(structures[s])
                density = array(fields["density"][1][0])
                assert density.shape == (3, 3, 3)
                assert list(density.ravel()[:3]) == [1.0, 1.01, 1.02]
                uniform = fields["Positions"][1][0]["uniform"]
                assert uniform["extents"] == [3, 3, 3], "uniform positions are procedural"


def write_by_the_layout(path):
    """Two time steps of a point cloud with a float field, and a uniform box."""
    def vertices(elements, fields):
        return {"skeletons": [{
            "dimension": 0, "index": 0, "elements": elements, "refinement": 1,
            "representations": [{"chart": "DefaultCartesian", "chart_dimension": 3,
                                 "chart_cartesian": True, "fields": fields}]}]}

    with h5py.File(path, "w") as f:
        f.attrs["format"] = "quaril-bundle"
        f.attrs["version"] = np.array([1, 0], dtype=np.int32)
        f.create_group("attributes").attrs["title"] = "from h5py"
        index = f.create_group("index")
        index["times"] = np.array([0.5, 1.5])
        names = [b"box", b"particles"]
        index["grid_names"] = np.frombuffer(b"".join(names), dtype=np.uint8)
        index["grid_name_ends"] = np.cumsum([len(n) for n in names]).astype(np.uint64)
        index["grid_parents"] = np.array([-1, -1], dtype=np.int64)
        index["entries"] = np.array([[0, 1, 0], [1, 0, 1], [1, 1, 0]], dtype=np.int64)
        structures = [json.dumps(vertices(3, [
            {"name": "Positions", "type": "point",
             "fragments": [{"dataset": "0", "extents": [3]}]},
            {"name": "speed", "type": "float",
             "fragments": [{"dataset": "1", "extents": [3]}]}])).encode(),
            json.dumps({"attributes": True, **vertices(8, [
                {"name": "Positions", "type": "point", "fragments": [{"uniform": {
                    "origin": [0, 0, 0], "spacing": [0.5, 0.5, 0.5], "extents": [2, 2, 2]}}]}])}
            ).encode()]
        index["structures"] = np.frombuffer(b"".join(structures), dtype=np.uint8)
        index["structure_ends"] = np.cumsum([len(s) for s in structures]).astype(np.uint64)
        # The second step is big-endian: the reader converts what is not
        # stored as it holds it.
        for row, step, order in ((0, 0, "<"), (2, 1, ">")):
            f[f"arrays/{row}.0"] = (np.arange(9.0).reshape(3, 3) + step).astype(order + "f8")
            f[f"arrays/{row}.1"] = (np.array([1.5, 2.5, 3.5]) * (step + 1)).astype(order + "f4")
        f.create_group("grids/1").attrs["material"] = "steel"


def test_a_file_written_by_the_documented_layout_loads(tmp_path):
    path = tmp_path / "written.h5"
    write_by_the_layout(path)
    lines = run_helper("dump", str(path)).splitlines()
    assert lines[0] == "attribute title from h5py"
    # Grids and fields come in identity order, which the file does not fix.
    assert sorted(lines[1:]) == sorted([
        "slice 0.5", "grid particles -",
        "field Positions point 0 1 2 3 4 5 6 7 8",
        "field speed float 1.5 2.5 3.5",
        "slice 1.5", "grid box -", "grid-attribute material steel",
        "uniform Positions 0 0 0 0.5 0.5 0.5 2 2 2",
        "grid particles -",
        "field Positions point 1 2 3 4 5 6 7 8 9",
        "field speed float 3 5 7",
    ])
