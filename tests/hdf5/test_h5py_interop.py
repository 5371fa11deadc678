"""The HDF5 layout as h5py sees it: files we write are readable with h5py
alone, and a file written by the documented layout with h5py loads in C++."""

import json
import os
import subprocess
import sys

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


def register_filters(codec):
    """Makes h5py read `codec`: LZ4 through hdf5plugin; zstd, which Debian's
    hdf5plugin lacks, through the quaril module, which registers its filters
    with the libhdf5 that h5py uses too."""
    if codec == "lz4":
        pytest.importorskip("hdf5plugin")
    else:
        pytest.importorskip("quaril")
    assert h5py.h5z.filter_avail({"lz4": 32004, "zstd": 32015}[codec])


@pytest.mark.parametrize("codec, filter_id", [("zstd", 32015), ("lz4", 32004)])
def test_h5py_with_the_registered_filters_reads_our_compressed_files(tmp_path, codec, filter_id):
    register_filters(codec)
    plain, packed = tmp_path / "plain.h5", tmp_path / f"{codec}.h5"
    run_helper("write", str(plain))
    run_helper("write", str(packed), codec)
    with h5py.File(plain, "r") as p, h5py.File(packed, "r") as c:
        filtered = 0
        for name, dataset in p["arrays"].items():
            assert np.array_equal(c["arrays"][name][...], dataset[...]), name
            plist = c["arrays"][name].id.get_create_plist()
            filters = [plist.get_filter(i)[0] for i in range(plist.get_nfilters())]
            filtered += filter_id in filters
        assert filtered > 0


def test_any_program_reads_our_compressed_files_through_the_plugins(tmp_path):
    """A fresh h5py, without this module or hdf5plugin, given our plugin folder."""
    plugins = os.environ.get("QUARIL_HDF5_PLUGINS", "")
    if not os.path.isdir(plugins):
        pytest.skip("the plugins are not built")
    plain = tmp_path / "plain.h5"
    run_helper("write", str(plain))
    script = ("import sys, h5py, numpy as np\n"
              "with h5py.File(sys.argv[1]) as p, h5py.File(sys.argv[2]) as c:\n"
              "    assert all(np.array_equal(c['arrays'][n][...], d[...])"
              " for n, d in p['arrays'].items())\n")
    for codec in ("zstd", "lz4"):
        packed = tmp_path / f"{codec}.h5"
        run_helper("write", str(packed), codec)
        environment = {key: value for key, value in os.environ.items() if key != "PYTHONPATH"}
        environment["HDF5_PLUGIN_PATH"] = plugins
        result = subprocess.run([sys.executable, "-c", script, str(plain), str(packed)],
                                env=environment, capture_output=True, text=True, check=False)
        assert result.returncode == 0, result.stderr


def write_by_the_layout(path, compression=None):
    """Two time steps of a point cloud with a float field, and a uniform box;
    the arrays compressed with `compression` (h5py's argument) when given."""
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
            arrays = {0: (np.arange(9.0).reshape(3, 3) + step).astype(order + "f8"),
                      1: (np.array([1.5, 2.5, 3.5]) * (step + 1)).astype(order + "f4")}
            for number, values in arrays.items():
                f.create_dataset(f"arrays/{row}.{number}", data=values,
                                 **({} if compression is None else compression))
        f.create_group("grids/1").attrs["material"] = "steel"


# h5py's arguments for no compression and for each registered codec (zstd at
# its default level and at 19 after shuffling; LZ4 in blocks of the filter's
# default size, and of 16 bytes).
COMPRESSIONS = [(None, None), ("zstd", dict(compression=32015)),
                ("zstd", dict(compression=32015, compression_opts=(19,), shuffle=True)),
                ("lz4", dict(compression=32004, compression_opts=(0,))),
                ("lz4", dict(compression=32004, compression_opts=(16,)))]


@pytest.mark.parametrize("codec, compression", COMPRESSIONS)
def test_a_file_written_by_the_documented_layout_loads(tmp_path, codec, compression):
    if codec:
        register_filters(codec)
    path = tmp_path / "written.h5"
    write_by_the_layout(path, compression)
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
