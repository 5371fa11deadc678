"""Reading a 64^3 float field of a 100-step file into numpy through the
quaril module, in turns with h5py reading the same data set of the same file:
 - FieldRead: each step's field read from a file opened once (data sets
   opened, read, closed);
 - OpenAndRead: the file opened, one field read, the file closed.
Prints the medians and their ratios (ours / h5py, lower is better).

Run with the module on the path: PYTHONPATH=<build>/python/package python3 bench/python_read.py
"""

import statistics
import tempfile
import time
from pathlib import Path

import h5py
import numpy as np

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
        print(f"a {EDGE}^3 float field of a {STEPS}-step file, median ms (quaril, h5py):")
        rows = (("FieldRead", ours_all, theirs_all), ("OpenAndRead", ours, theirs))
        for name, mine, baseline in rows:
            print(f"  {name:12} {1e3 * statistics.median(mine):.3f} {1e3 * statistics.median(baseline):.3f}")
        print("Ratios (ours / baseline, lower is better):")
        for name, mine, baseline in rows:
            print(f"  {name:12} {statistics.median(mine) / statistics.median(baseline):.2f}")


if __name__ == "__main__":
    main()
