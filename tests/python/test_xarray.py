"""xarray over bundle files, and the mapping protocols of the module's objects."""

import numpy as np
import pytest

import quaril

xr = pytest.importorskip("xarray")


def write_run(path, steps=4, changing_at=None):
    """A uniform grid "fluid" (4 x 3 x 2 vertices) with a scalar and a vector
    field, and a point cloud "cloud" with a cell-free field, at `steps` times."""
    bundle = quaril.Bundle()
    times = [i / 3 for i in range(steps)]
    for i, t in enumerate(times):
        fluid = bundle[t]["fluid"]
        extents = (5, 3, 2) if changing_at is not None and i >= changing_at else (4, 3, 2)
        fluid.set_uniform(extents, origin=(1, 2, 3), spacing=(0.5, 1, 2))
        count = int(np.prod(extents))
        fluid.add_field("p", np.arange(count, dtype=float) + i)
        fluid.add_field("v", np.full((count, 3), float(i)))
        cloud = bundle[t]["cloud"]
        cloud.set_points(np.full((5, 3), t))
        cloud.add_field("mass", np.arange(5, dtype=np.float32) * i)
    bundle.set_attribute("code", "flow 2.1")
    bundle[times[0]]["fluid"].set_attribute("gamma", 1.4)
    bundle.save(path)
    return times


def test_a_uniform_grid_is_a_dataset_with_exact_times_and_coordinates(tmp_path):
    path = str(tmp_path / "run.qb.h5")
    times = write_run(path)
    fluid = xr.open_dataset(path, engine=quaril.XarrayBackend, group="fluid")
    assert list(fluid.time.values) == times  # bit for bit: 1/3 and 2/3 too
    assert fluid.p.dims == ("time", "z", "y", "x") and fluid.p.shape == (4, 2, 3, 4)
    assert fluid.v.dims == ("time", "z", "y", "x", "component")
    assert list(fluid.x.values) == [1, 1.5, 2, 2.5] and list(fluid.z.values) == [3, 5]
    assert fluid.p.sel(time=times[2], x=2.0, y=3.0, z=5.0).item() == 12 + 4 + 2 + 2
    cloud = xr.open_dataset(path, engine=quaril.XarrayBackend, group="cloud", chunks={})
    assert cloud.mass.dims == ("time", "point") and cloud.mass.dtype == np.float32
    assert cloud.positions.dims == ("time", "point", "component")
    assert cloud.mass.chunks == ((1, 1, 1, 1), (5,))  # one chunk per step
    assert float(cloud.mass.sum().compute()) == 10 * (0 + 1 + 2 + 3)
    assert sorted(quaril.open_datasets(path)) == ["cloud", "fluid"]
    assert fluid.attrs["code"] == "flow 2.1" and fluid.attrs["gamma"] == 1.4
    assert fluid.attrs["grid"] == "fluid" and "gamma" not in cloud.attrs


def test_opening_reads_no_array_and_indexing_reads_only_the_steps_asked_for(tmp_path,
                                                                             monkeypatch):
    from quaril import xarray_backend

    path = str(tmp_path / "run.qb.h5")
    write_run(path, steps=6)
    read = []
    values = xarray_backend._Store.values
    monkeypatch.setattr(xarray_backend._Store, "values",
                        lambda store, step, name, region=None:
                        read.append((step, name, region)) or values(store, step, name, region))
    fluid = xr.open_dataset(path, engine=quaril.XarrayBackend, group="fluid")
    assert read == []
    assert fluid.p.isel(time=4, x=1).values.shape == (2, 3)
    assert read == [(4, "p", (slice(None), slice(None), 1))]  # a box of one step
    read.clear()
    fluid.p.isel(time=slice(1, 3)).load()
    assert read == [(1, "p", None), (2, "p", None)]
    read.clear()
    series = fluid.p[:, 1, 2, 3].values  # one point of every step, in one call
    assert list(series) == [12 + 8 + 3 + step for step in range(6)]
    assert list(fluid.p[1:5:2, 0, 0, 1].values) == [1 + 1, 1 + 3]
    assert read == []


def test_one_element_over_time_is_one_call_that_names_where_it_cannot(tmp_path):
    path = str(tmp_path / "run.qb.h5")
    times = write_run(path, steps=5, changing_at=3)
    run = quaril.load(path)
    at, values = run.values_over_time("fluid", "p", (1, 2, 3), times=(None, times[2]))
    assert list(at) == times[:3] and list(values) == [12 + 8 + 3 + step for step in range(3)]
    at, vectors = run.values_over_time("fluid", "v", (0, 0, 0), times=(times[1], times[2]))
    assert vectors.shape == (2, 3) and list(vectors[:, 0]) == [1.0, 2.0]
    with pytest.raises(OSError, match=r"at time 1: field \"p\" changes its extents from 4x3x2"):
        run.values_over_time("fluid", "p", (0, 0, 0))
    with pytest.raises(OSError, match="no field \"q\""):
        run.values_over_time("fluid", "q", (0, 0, 0))
    with pytest.raises(OSError, match="does not lie within"):
        run.values_over_time("fluid", "p", (9, 0, 0), times=(0, 0))


def test_a_grid_that_changes_is_an_error_naming_where_unless_the_times_avoid_it(tmp_path):
    path = str(tmp_path / "run.qb.h5")
    times = write_run(path, steps=5, changing_at=3)
    with pytest.raises(ValueError, match=r"changes at time 1\.0: field \"p\""):
        xr.open_dataset(path, engine=quaril.XarrayBackend, group="fluid").load()
    kept = xr.open_dataset(path, engine=quaril.XarrayBackend, group="fluid",
                           times=(None, times[2]))
    assert kept.p.shape == (3, 2, 3, 4)
    with pytest.raises(KeyError, match=r"no grid \"gas\".*there are.*cloud.*fluid"):
        xr.open_dataset(path, engine=quaril.XarrayBackend, group="gas")
    with pytest.raises(ValueError, match="no step in the times"):
        xr.open_dataset(path, engine=quaril.XarrayBackend, group="fluid", times=(7, 8))


def test_bundles_slices_and_grids_are_mappings_with_a_repr_that_says_what_they_hold(tmp_path):
    path = str(tmp_path / "run.qb.h5")
    times = write_run(path, steps=2)
    run = quaril.load(path)
    assert run.keys() == times and times[1] in run and 7.0 not in run
    assert run.get(7.0) is None and run.get(times[0]).time == times[0]
    assert [t for t, _ in run.items()] == times
    step = run[times[1]]
    assert step.keys() == ["cloud", "fluid"] and list(step) == ["cloud", "fluid"]
    assert step.get("gas") is None and step.get("fluid").name == "fluid"
    fluid = step["fluid"]
    assert "p" in fluid and "q" not in fluid and len(fluid) == len(fluid.keys())
    assert np.array_equal(fluid["p"], np.arange(24.0).reshape(2, 3, 4) + 1)
    assert fluid.get("q", 5) == 5 and dict(fluid.items()).keys() == set(fluid.keys())
    assert repr(run) == "<quaril.Bundle 2 steps from 0 to 0.3333333333333333, 2 grids (cloud, fluid)>"
    assert repr(step) == "<quaril.Slice t=0.3333333333333333: 2 grids (cloud, fluid)>"
    assert run.attributes == {"code": "flow 2.1"}
    step.set_attribute("levels", [1, 2])
    assert step.attributes == {"levels": [1, 2]}
    html = run._repr_html_()
    assert html.startswith("<pre>") and "fluid" in html and "2 time steps" in html


def test_a_catalog_lists_grids_and_times_and_loads_chosen_steps_only(tmp_path):
    path = str(tmp_path / "run.h5")
    times = write_run(path, steps=12)
    catalog = quaril.Catalog(path)
    assert catalog.grids == ["cloud", "fluid"] and list(catalog.times) == times
    assert list(catalog.times_of("fluid")) == times and len(catalog.times_of("gas")) == 0
    chosen = catalog.load([times[5], 99.0])
    assert chosen.keys() == [times[5]] and chosen.attributes == {"code": "flow 2.1"}
    assert np.array_equal(chosen[times[5]]["fluid"]["p"], np.arange(24.0).reshape(2, 3, 4) + 5)
    assert repr(catalog).endswith(": 12 times, 2 grids>")
    with pytest.raises(OSError, match="missing.h5"):
        quaril.Catalog(str(tmp_path / "missing.h5"))
    # A saved file is ours by its first bytes, whatever its name; others' HDF5 is not.
    backend = quaril.XarrayBackend()
    assert backend.guess_can_open(path)
    h5py = pytest.importorskip("h5py")
    with h5py.File(tmp_path / "theirs.h5", "w") as theirs:
        theirs["x"] = np.zeros(3)
    assert not backend.guess_can_open(str(tmp_path / "theirs.h5"))
    # Steps read one at a time, past the few read from bundles of their own.
    fluid = xr.open_dataset(path, engine=quaril.XarrayBackend, group="fluid")
    assert [float(fluid.p.isel(time=i, x=0, y=0, z=0)) for i in range(12)] == list(range(12))
