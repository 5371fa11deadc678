"""The Python module as a user meets it: numpy in, file, numpy out."""

import gc
import os

import numpy as np
import pytest

import quaril


def cloud_bundle(values, times=(0.0, 1.0)):
    """A bundle with a point cloud of len(values) points and a field "f"."""
    bundle = quaril.Bundle()
    for t in times:
        grid = bundle[t]["cloud"]
        grid.set_points(np.arange(3 * len(values), dtype=float).reshape(-1, 3) + t)
        grid.add_field("f", values)
    return bundle


@pytest.mark.parametrize("dtype", [np.int8, np.uint8, np.int16, np.uint16, np.int32, np.uint32,
                                   np.int64, np.uint64, np.float32, np.float64, np.bool_])
def test_every_element_type_round_trips_through_a_file(tmp_path, dtype):
    values = (np.arange(5) * 37 % 11).astype(dtype)
    cloud_bundle(values).save(tmp_path / "types.h5")
    read = quaril.load(tmp_path / "types.h5").slice(1.0).grid("cloud").field("f")
    assert read.dtype == np.dtype(dtype)
    np.testing.assert_array_equal(read, values)


def test_vectors_points_cells_and_uniform_grids_keep_their_shapes(tmp_path):
    bundle = quaril.Bundle()
    fluid = bundle[0.5]["fluid"]
    fluid.set_uniform((4, 3, 2), origin=(1, 2, 3), spacing=(0.5, 0.25, 1))
    velocity = np.random.default_rng(1).random((2, 3, 4, 3))
    fluid.add_field("velocity", velocity)
    surface = bundle[0.5]["surface"]
    surface.set_triangles(np.eye(3), np.array([[0, 1, 2]]))
    surface.add_field("area", np.array([0.5], dtype=np.float32), on="cells")
    bundle.save(tmp_path / "shapes.h5")

    read = quaril.load(tmp_path / "shapes.h5").slice(0.5)
    fluid = read.grid("fluid")
    assert fluid.uniform == {"origin": (1, 2, 3), "spacing": (0.5, 0.25, 1), "extents": [4, 3, 2]}
    np.testing.assert_array_equal(fluid.field("velocity"), velocity)
    np.testing.assert_array_equal(fluid.field("Positions")[1, 2, 3], [2.5, 2.5, 4])
    surface = read.grid("surface")
    np.testing.assert_array_equal(surface.field("Triangles"), [[0, 1, 2]])
    assert surface.field("area", on="cells").tolist() == [0.5]
    assert sorted(surface.fields) == ["Positions", "Triangles", "area"]


def test_opening_reads_nothing_until_a_field_is_asked_for(tmp_path):
    cloud_bundle(np.zeros(1000)).save(tmp_path / "lazy.h5")
    bundle = quaril.load(tmp_path / "lazy.h5")
    assert bundle.memory() == (0, 0)  # time steps not even read
    grid = bundle.slice(1.0).grid("cloud")
    resident, deferred = bundle.memory()
    assert resident == 0 and deferred >= 8000
    grid.field("f")
    assert bundle.memory()[0] >= 8000
    # Or everything at once, over the cores.
    everything = quaril.load(tmp_path / "lazy.h5")
    assert everything.prefetch(times=(0, 5)) == 0 and everything.memory()[1] == 0
    assert everything.memory()[0] >= 8000


def test_arrays_outlive_their_bundle(tmp_path):
    cloud_bundle(np.arange(4.0)).save(tmp_path / "life.h5")
    bundle = quaril.load(tmp_path / "life.h5")
    values = bundle.slice(0.0).grid("cloud").field("f")
    del bundle
    gc.collect()
    np.testing.assert_array_equal(values, np.arange(4.0))


def test_failures_raise_with_the_library_text(tmp_path):
    (tmp_path / "garbage.h5").write_bytes(b"not a bundle")
    bundle = cloud_bundle(np.zeros(2))
    cases = [
        (lambda: quaril.load(tmp_path / "missing.h5"), OSError, "missing.h5: no such file"),
        (lambda: quaril.load(tmp_path / "garbage.h5"), OSError, "not an HDF5 file"),
        (lambda: bundle.slice(7), KeyError, "no time step at 7"),
        (lambda: bundle.slice(0.0).grid("nothing"), KeyError, "no grid"),
        (lambda: bundle.slice(0.0).grid("cloud").field("nothing"), KeyError, "no field"),
        (lambda: bundle[2.0]["new"].add_field("f", np.zeros(2)), ValueError, "no vertices"),
        (lambda: bundle.slice(0.0).grid("cloud").add_field("g", np.zeros(3)), ValueError, "holds 3 values"),
        (lambda: bundle.slice(0.0).grid("cloud").add_field("g", np.zeros(2), on="edges"), ValueError, "on must"),
        (lambda: bundle.save(tmp_path / "no-folder" / "x.h5"), OSError, "cannot write in .*no-folder"),
        (lambda: bundle.sync(), ValueError, "not bound"),
    ]
    for call, error, text in cases:
        with pytest.raises(error, match=text):
            call()


def test_navigation_through_time(tmp_path):
    bundle = quaril.Bundle()
    for step in range(4):
        bundle[float(step)]["cloud"].set_points(np.full((1, 3), float(step)))
        if step % 2:
            bundle[float(step)]["probe"].set_points(np.zeros((1, 3)))
    bundle.save(tmp_path / "walk.h5")
    read = quaril.load(tmp_path / "walk.h5")
    np.testing.assert_array_equal(read.times, [0, 1, 2, 3])
    assert read.grids == ["cloud", "probe"] and len(read) == 4
    assert [t for t, _ in read] == [0, 1, 2, 3]
    assert read.most_recent(2.5, "probe").time == 1
    assert read.most_recent(0.5, "probe") is None
    assert [t for t, _ in read.evolution("probe")] == [1, 3]
    assert read.first("probe")[0] == 1 and read.last("probe")[0] == 3
    assert repr(read) == "<quaril.Bundle 4 steps from 0 to 3, 2 grids (cloud, probe)>"
    assert repr(read.slice(3).grid("probe")) == '<quaril.Grid "probe" at t=3: Positions>'
    assert "<GRID>" in read.xml()


def test_a_bound_series_gets_every_sync_and_the_end_of_the_with_block(tmp_path):
    path = tmp_path / "run.h5"
    bundle = quaril.Bundle()
    with bundle.bind(str(path)) as binding:
        for step in range(3):
            bundle[float(step)]["cloud"].set_points(np.full((2, 3), float(step)))
            binding.sync()
            assert len(quaril.load(path)) == step + 1  # a reader sees each completed sync
        bundle[3.0]["cloud"].set_points(np.zeros((2, 3)))
    assert len(quaril.load(path)) == 4
    with bundle.bind(str(path), append=True):
        bundle[4.0]["cloud"].set_points(np.zeros((2, 3)))
    assert len(quaril.load(path)) == 5
    assert open(str(path) + ".xmf").read().count("<Time Value=") == 5


@pytest.mark.parametrize("how", ["save", "bind", "bind-append"])
def test_descriptors_are_written_unless_switched_off(tmp_path, how):
    for xdmf in (True, False):
        path = tmp_path / f"{how}-{xdmf}.h5"
        bundle = quaril.Bundle()
        bundle[0.0]["cloud"].set_points(np.zeros((1, 3)))
        if how == "save":
            bundle.save(path, xdmf=xdmf)
        else:
            if how == "bind-append":
                bundle.save(path, xdmf=False)
            with bundle.bind(path, append=how == "bind-append", xdmf=xdmf):
                bundle[1.0]["cloud"].set_points(np.ones((1, 3)))
        assert (tmp_path / f"{path.name}.xmf").exists() == xdmf, (how, xdmf)
    quaril.write_xdmf(path)
    assert (tmp_path / f"{path.name}.xmf").exists()
    with pytest.raises(OSError, match="missing.h5"):
        quaril.write_xdmf(tmp_path / "missing.h5")


def test_h5py_reads_a_file_written_from_python(tmp_path):
    h5py = pytest.importorskip("h5py")
    values = np.linspace(0, 1, 6, dtype=np.float32)
    cloud_bundle(values, times=(0.25,)).save(tmp_path / "shared.h5")
    with h5py.File(tmp_path / "shared.h5", "r") as file:
        assert file["index/times"][()].tolist() == [0.25]
        arrays = [file["arrays"][name][()] for name in file["arrays"]]
    assert any(array.dtype == np.float32 and np.array_equal(array, values) for array in arrays)


def damaged_file(tmp_path):
    """A file of two steps whose grid "box" cannot be read at either (its
    structure lacks a key), beside a readable point cloud."""
    bundle = quaril.Bundle()
    for t in (0.0, 1.0):
        bundle[t]["box"].set_uniform((2, 2, 2))
        bundle[t]["cloud"].set_points(np.zeros((2, 3)) + t)
        bundle[t]["cloud"].add_field("f", np.array([t, 2 * t]))
    bundle.save(tmp_path / "good.h5")
    data = (tmp_path / "good.h5").read_bytes()
    assert b'"elements"' in data  # the first structure is the box's
    (tmp_path / "damaged.h5").write_bytes(data.replace(b'"elements"', b'"elementz"', 1))
    return tmp_path / "damaged.h5"


def test_an_unreadable_grid_keeps_its_place_and_no_write_drops_it_silently(tmp_path):
    path = damaged_file(tmp_path)
    before = path.read_bytes()
    bundle = quaril.load(path)
    step = bundle.slice(0.0)
    assert sorted(step.grids) == ["box", "cloud"] and "box" in step and len(step) == 2
    for read in (lambda: step["box"], lambda: step.grid("box")):
        with pytest.raises(OSError, match='grid "box" at time 0: its structure: the key'):
            read()
    np.testing.assert_array_equal(step.grid("cloud").field("f"), [0.0, 0.0])
    assert [len(s) for _, s in bundle] == [2, 2]  # every step read, the box in its place
    problems = bundle.problems
    assert [(p.grid, p.time, p.lost) for p in problems] == [("box", 0.0, True), ("box", 1.0, True)]
    assert str(problems[0]).startswith(str(path) + ': grid "box" at time 0: ')

    with pytest.raises(OSError, match="refused: it would lose what could not be read"):
        bundle.save(path)
    assert path.read_bytes() == before
    with pytest.raises(OSError, match="refused"):
        bundle.bind(tmp_path / "series.h5")
    bundle.save(tmp_path / "kept.h5", skip_damaged=True)
    kept = quaril.load(tmp_path / "kept.h5")
    assert kept.slice(1.0).grids == ["cloud"] and kept.problems == []


def test_check_reports_every_problem_of_a_file(tmp_path):
    path = damaged_file(tmp_path)
    report = quaril.check(path)
    assert not report and not report.ok
    assert [p.where for p in report.problems] == ['grid "box" at time 0', 'grid "box" at time 1']
    assert (report.grids, report.arrays) == (2, 4)
    good = quaril.check(tmp_path / "good.h5")
    assert good and good.problems == [] and good.grids == 4
    with pytest.raises(OSError, match="no such file"):
        quaril.check(tmp_path / "absent.h5")


WRITER = """
import sys, time
import numpy as np
import quaril
bundle = quaril.Bundle()
bundle[0.0]["cloud"].set_points(np.zeros((1, 3)))
with bundle.bind(sys.argv[1]) as binding:
    print("bound", flush=True)
    sys.stdin.readline()
    for t in (1 / 3, 1 + 2**-52, 2.5):
        bundle[t]["cloud"].set_points(np.full((1, 3), t))
        bundle[t]["cloud"].add_field("f", np.array([t]))
        binding.sync()
        time.sleep(0.05)
"""


def test_follow_yields_each_step_once_as_its_sync_lands_and_ends_with_the_writer(tmp_path):
    import subprocess
    import sys

    path = str(tmp_path / "run.h5")
    writer = subprocess.Popen([sys.executable, "-c", WRITER, path], stdin=subprocess.PIPE,
                              stdout=subprocess.PIPE, text=True)
    assert writer.stdout.readline() == "bound\n"
    steps = quaril.follow(path, idle=30)
    first = next(steps)
    assert first[0] == 0.0 and first[1].grids == ["cloud"]
    writer.stdin.write("go\n")
    writer.stdin.flush()
    rest = list(steps)  # ends at the closing record, long before the idle time
    assert writer.wait() == 0
    assert [t for t, _ in rest] == [1 / 3, 1 + 2**-52, 2.5]
    for t, step in rest:
        assert step["cloud"].field("f")[0] == t
    assert steps.closed and len(steps.bundle) == 4


def test_follow_ends_when_idle_and_refresh_takes_up_later_syncs(tmp_path):
    path = str(tmp_path / "run.h5")
    bundle = cloud_bundle(np.array([1.0]), times=(0.0,))
    with bundle.bind(path) as binding:
        steps = quaril.follow(path, idle=0.05)
        assert [t for t, _ in steps] == [0.0]  # no news: ends after the idle time
        reader = quaril.load(path)
        bundle[1.0]["cloud"].set_points(np.ones((1, 3)))
        binding.sync()
        assert reader.refresh() == ([1.0], [])
        assert reader.refresh() == ([], [])
    with pytest.raises(OSError, match="loaded from no series"):
        quaril.load(path + ".parts/" + os.listdir(path + ".parts")[0]).refresh()
    with pytest.raises(ValueError, match="idle"):
        quaril.follow(path, idle=-1)
    with pytest.raises(OSError, match="missing.h5"):
        quaril.follow(str(tmp_path / "missing.h5"))
