"""Reading a 64^3 float field of a 100-step file into numpy through the
quaril module, in turns with h5py reading the same data set of the same file:
 - FieldRead: each step's field read from a file opened once (data sets
   opened, read, closed);
 - OpenAndRead: the file opened, one field read, the file closed;
and xarray over a 10^4-step file of an 8^3 float64 field, in turns with
xarray over the same values stored as netCDF with an unlimited time dimension:
 - XarrayOpenStep: the file opened and the middle step read;
 - XarrayPointSeries: the values at one point over all steps.
Prints the medians and their ratios (ours / theirs, lower is better).

Run with the module on the path: PYTHONPATH=<build>/python/package python3 bench/python_read.py
"""

import statistics
import tempfile
import time
from pathlib import Path

import h5py
import numpy as np

try:
    import netCDF4
    import xarray as xr
except ImportError:  # the xarray figures need both
    xr = None

import quaril

STEPS = 100
EDGE = 64
ROUNDS = 200
PASSES = 10


def make_file(path):
    bundle = quaril.Bundle()
    for step in range(STEPS):
        grid = bundle[float(step)]["fluid"]
        grid.set_uniform((EDGE, EDGE, EDGE))
        grid.add_field("density", np.full((EDGE, EDGE, EDGE), step, dtype=np.float32))
    bundle.save(path)


def read_ours(path, step):
    return quaril.load(path).slice(float(step)).grid("fluid").field("density")


def read_h5py(path, step):
    # One grid per step and one stored array per grid: entry `step`, array 0.
    with h5py.File(path, "r") as file:
        return file["arrays"][f"{step}.0"][()]


def read_all_ours(path):
    bundle = quaril.load(path)
    start = time.perf_counter()
    for step in range(STEPS):
        values = bundle.slice(float(step)).grid("fluid").field("density")
        assert values[0, 0, 0] == step
    return time.perf_counter() - start


def read_all_h5py(path):
    with h5py.File(path, "r") as file:
        arrays = file["arrays"]
        start = time.perf_counter()
        for step in range(STEPS):
            values = arrays[f"{step}.0"][()]
            assert values[0, 0, 0] == step
        return time.perf_counter() - start


SERIES_STEPS = 10000
SERIES_EDGE = 8
SERIES_ROUNDS = 7


def make_series(ours, theirs):
    """The same (time, z, y, x) values as our file and as netCDF."""
    times = np.arange(SERIES_STEPS) / 7
    bundle = quaril.Bundle()
    with netCDF4.Dataset(theirs, "w") as nc:
        nc.createDimension("time", None)
        for axis in "zyx":
            nc.createDimension(axis, SERIES_EDGE)
        nc.createVariable("time", "f8", ("time",))[:] = times
        field = nc.createVariable("p", "f8", ("time", "z", "y", "x"))
        for step, t in enumerate(times):
            values = np.full((SERIES_EDGE,) * 3, float(step))
            field[step] = values
            grid = bundle[float(t)]["fluid"]
            grid.set_uniform((SERIES_EDGE,) * 3)
            grid.add_field("p", values)
    bundle.save(ours, xdmf=False)


def xarray_rounds(ours, theirs):
    """(name, our times, their times) of the xarray work, in turns."""
    def open_step(path, **engine):
        with xr.open_dataset(path, **engine) as data:
            return float(data.p.isel(time=SERIES_STEPS // 2, x=0, y=0, z=0))

    def point_series(path, **engine):
        with xr.open_dataset(path, **engine) as data:
            return data.p[:, 3, 4, 5].values

    rows = []
    for name, work in (("XarrayOpenStep", open_step), ("XarrayPointSeries", point_series)):
        mine, baseline = [], []
        for _ in range(SERIES_ROUNDS):
            for path, engine, times in ((theirs, {}, baseline),
                                        (ours, {"engine": quaril.XarrayBackend, "group": "fluid"},
                                         mine)):
                start = time.perf_counter()
                result = work(path, **engine)
                times.append(time.perf_counter() - start)
                assert np.all(np.asarray(result) >= 0)
        rows.append((name, mine, baseline))
    return rows


def main():
    with tempfile.TemporaryDirectory() as folder:
        path = str(Path(folder) / "series.h5")
        make_file(path)
        ours_all, theirs_all = [], []
        for _ in range(PASSES):
            theirs_all.append(read_all_h5py(path) / STEPS)
            ours_all.append(read_all_ours(path) / STEPS)
        ours, theirs = [], []
        for round_number in range(ROUNDS):
            step = round_number % STEPS
            for reader, times in ((read_h5py, theirs), (read_ours, ours)):
                start = time.perf_counter()
                values = reader(path, step)
                times.append(time.perf_counter() - start)
                assert values.shape == (EDGE, EDGE, EDGE) and values[0, 0, 0] == step
        rows = [("FieldRead", ours_all, theirs_all), ("OpenAndRead", ours, theirs)]
        if xr is not None:
            make_series(str(Path(folder) / "steps.h5"), str(Path(folder) / "steps.nc"))
            rows += xarray_rounds(str(Path(folder) / "steps.h5"), str(Path(folder) / "steps.nc"))
        print(f"a {EDGE}^3 float field of a {STEPS}-step file, median ms (quaril, h5py); "
              f"xarray over {SERIES_STEPS} steps of {SERIES_EDGE}^3 (quaril, netCDF):")
        for name, mine, baseline in rows:
            print(f"  {name:18} {1e3 * statistics.median(mine):.3f} {1e3 * statistics.median(baseline):.3f}")
        print("Ratios (ours / baseline, lower is better):")
        for name, mine, baseline in rows:
            print(f"  {name:18} {statistics.median(mine) / statistics.median(baseline):.2f}")


if __name__ == "__main__":
    main()
