"""A time series as a Python user writes and reads it, against what such a
user picks instead, on the same work in one run (medians of ROUNDS; ours /
theirs): 1,000 steps of a 16^3 float64 field on a uniform grid.

 - append: the steps one at a time, each made durable as the peer makes it
   (quaril: a sync, at the default durability and with durable=True; h5py: a
   flush; netCDF4: a sync);
 - open, list times; open, read the middle step; the value at one point over
   all steps; bytes on disk.

Peers: h5py with a group per step, h5py with one extendable (time, z, y, x)
dataset, netCDF4 with an unlimited time dimension, xarray over that netCDF.

Run with the module on the path: PYTHONPATH=<build>/python/package python3 bench/python_peers.py
"""

import os
import statistics
import tempfile
import time
from pathlib import Path

import h5py
import netCDF4
import numpy as np
import xarray as xr

import quaril

STEPS = 1000
EDGE = 16
ROUNDS = 3
POINT = (3, 4, 5)


def field(step):
    return np.full((EDGE,) * 3, float(step)) + np.arange(EDGE ** 3).reshape((EDGE,) * 3) * 1e-3


def times():
    return [step / 8 for step in range(STEPS)]


# ---- appending ----------------------------------------------------------------------


def append_quaril(path, durable=False):
    bundle = quaril.Bundle()
    with bundle.bind(path, xdmf=False, durable=durable) as binding:
        for step, t in enumerate(times()):
            grid = bundle[t]["fluid"]
            grid.set_uniform((EDGE,) * 3)
            grid.add_field("p", field(step))
            binding.sync()


def append_h5py_groups(path):
    with h5py.File(path, "w") as f:
        for step, t in enumerate(times()):
            group = f.create_group(str(step))
            group.attrs["time"] = t
            group["p"] = field(step)
            f.flush()


def append_h5py_extendable(path):
    with h5py.File(path, "w") as f:
        values = f.create_dataset("p", (0,) + (EDGE,) * 3, maxshape=(None,) + (EDGE,) * 3,
                                  chunks=(1,) + (EDGE,) * 3, dtype="f8")
        stamps = f.create_dataset("time", (0,), maxshape=(None,), chunks=(1024,), dtype="f8")
        for step, t in enumerate(times()):
            values.resize(step + 1, axis=0)
            stamps.resize(step + 1, axis=0)
            values[step] = field(step)
            stamps[step] = t
            f.flush()


def append_netcdf(path):
    with netCDF4.Dataset(path, "w") as nc:
        nc.createDimension("time", None)
        for axis in "zyx":
            nc.createDimension(axis, EDGE)
        stamps = nc.createVariable("time", "f8", ("time",))
        values = nc.createVariable("p", "f8", ("time", "z", "y", "x"))
        for step, t in enumerate(times()):
            stamps[step] = t
            values[step] = field(step)
            nc.sync()


# ---- reading --------------------------------------------------------------------------


def readers(paths):
    """name -> (list times, read the middle step, the point's series) per file kind."""
    middle = STEPS // 2

    def quaril_times():
        return quaril.load(paths["quaril"]).times

    def quaril_step():
        run = quaril.load(paths["quaril"])
        return np.array(run.slice(run.times[middle]).grid("fluid").field("p"))

    def quaril_point():
        with xr.open_dataset(paths["quaril"], engine=quaril.XarrayBackend, group="fluid") as d:
            return d.p[(slice(None),) + POINT].values

    def groups_times():
        with h5py.File(paths["groups"], "r") as f:
            return [f[name].attrs["time"] for name in f]

    def groups_step():
        with h5py.File(paths["groups"], "r") as f:
            return f[str(middle)]["p"][...]

    def groups_point():
        with h5py.File(paths["groups"], "r") as f:
            return np.array([f[str(step)]["p"][POINT] for step in range(STEPS)])

    def extendable_times():
        with h5py.File(paths["extendable"], "r") as f:
            return f["time"][...]

    def extendable_step():
        with h5py.File(paths["extendable"], "r") as f:
            return f["p"][middle]

    def extendable_point():
        with h5py.File(paths["extendable"], "r") as f:
            return f["p"][(slice(None),) + POINT]

    def netcdf_times():
        with netCDF4.Dataset(paths["netcdf"]) as nc:
            return nc["time"][:]

    def netcdf_step():
        with netCDF4.Dataset(paths["netcdf"]) as nc:
            return nc["p"][middle]

    def netcdf_point():
        with netCDF4.Dataset(paths["netcdf"]) as nc:
            return nc["p"][(slice(None),) + POINT]

    def xarray_times():
        with xr.open_dataset(paths["netcdf"]) as d:
            return d.time.values

    def xarray_step():
        with xr.open_dataset(paths["netcdf"]) as d:
            return d.p.isel(time=middle).values

    def xarray_point():
        with xr.open_dataset(paths["netcdf"]) as d:
            return d.p[(slice(None),) + POINT].values

    return {"quaril": (quaril_times, quaril_step, quaril_point),
            "h5py groups": (groups_times, groups_step, groups_point),
            "h5py extendable": (extendable_times, extendable_step, extendable_point),
            "netCDF4": (netcdf_times, netcdf_step, netcdf_point),
            "xarray": (xarray_times, xarray_step, xarray_point)}


def timed(work):
    start = time.perf_counter()
    work()
    return time.perf_counter() - start


def bytes_of(path):
    if os.path.isdir(path + ".parts"):
        return os.path.getsize(path) + sum(p.stat().st_size for p in Path(path + ".parts").iterdir())
    return os.path.getsize(path)


def main():
    with tempfile.TemporaryDirectory() as folder:
        paths = {name: str(Path(folder) / f"{name}.h5")
                 for name in ("quaril", "durable", "groups", "extendable", "netcdf")}
        appenders = {"quaril": lambda: append_quaril(paths["quaril"]),
                     "quaril durable": lambda: append_quaril(paths["durable"], durable=True),
                     "h5py groups": lambda: append_h5py_groups(paths["groups"]),
                     "h5py extendable": lambda: append_h5py_extendable(paths["extendable"]),
                     "netCDF4": lambda: append_netcdf(paths["netcdf"])}
        appended = {name: [] for name in appenders}
        for _ in range(ROUNDS):
            for name, work in appenders.items():
                appended[name].append(timed(work))
        read = {name: [[], [], []] for name in readers(paths)}
        for _ in range(ROUNDS):
            for name, works in readers(paths).items():
                for i, work in enumerate(works):
                    read[name][i].append(timed(work))
        assert np.allclose(readers(paths)["quaril"][2](), readers(paths)["netCDF4"][2]())

        median = {name: statistics.median(values) for name, values in appended.items()}
        rows = [("append", {name: median[name] for name in median})]
        for i, work in enumerate(("open, list times", "open, read the middle step",
                                  "the value at one point over all steps")):
            rows.append((work, {name: statistics.median(read[name][i]) for name in read}))
        rows.append(("bytes on disk", {"quaril": bytes_of(paths["quaril"]),
                                       "h5py groups": bytes_of(paths["groups"]),
                                       "h5py extendable": bytes_of(paths["extendable"]),
                                       "netCDF4": bytes_of(paths["netcdf"])}))
        peers = ("h5py groups", "h5py extendable", "netCDF4", "xarray")
        print(f"{STEPS} steps of a {EDGE}^3 float64 field; medians of {ROUNDS} "
              "(seconds, bytes for the last row):")
        for work, values in rows:
            print(f"  {work:40} " + "  ".join(f"{name} {value:.4g}" for name, value in values.items()))
        print("Ratios (ours / theirs, lower is better):")
        for work, values in rows:
            ratios = [f"{peer} {values['quaril'] / values[peer]:.2f}" for peer in peers
                      if peer in values]
            print(f"  {work:40} " + "  ".join(ratios))
            if work == "append":
                print(f"  {'append, durable=True':40} " + "  ".join(
                    f"{peer} {values['quaril durable'] / values[peer]:.2f}" for peer in peers
                    if peer in values))


if __name__ == "__main__":
    main()
