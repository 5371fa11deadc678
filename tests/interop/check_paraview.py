"""ParaView as a real client: it opens XDMF descriptors the library wrote, and
what it sees is checked against what the library wrote. Run by `make interop`:

    xvfb-run -a pvpython tests/interop/check_paraview.py BUNDLE_TOOL MODULE_DIR EVERY_KIND

- the demo data set (BUNDLE_TOOL demo), read back through the quaril module
  in MODULE_DIR;
- a bundle of every mesh kind, saved by EVERY_KIND (interop_every_kind),
  which prints what it wrote as JSON;
- a series that grows by syncs after ParaView opened it, re-read.

Every difference is listed before the script fails.
"""

import json
import re
import subprocess
import sys
import tempfile
import xml.etree.ElementTree as ElementTree
from pathlib import Path

import numpy as np
from paraview import servermanager
from paraview.simple import ReloadFiles, XDMFReader, Xdmf3ReaderT

tool, module_dir, every_kind = sys.argv[1], sys.argv[2], sys.argv[3]
sys.path.insert(0, module_dir)
import quaril  # noqa: E402

failures = []


def expect(what, seen, written, close=False):
    """Records a failure when ParaView's `seen` differs from the library's `written`."""
    try:
        same = np.allclose(seen, written, rtol=1e-6, atol=1e-12) if close else seen == written
    except (TypeError, ValueError):
        same = False
    if not same:
        # Shown at once too, in case ParaView dies before the summary.
        failures.append(f"{what}: ParaView has {seen!r}, the library wrote {written!r}")
        print("differs:", failures[-1], file=sys.stderr, flush=True)
    return same


def blocks_at(reader, time):
    """The reader's top-level blocks at `time` by name (None for a grid without a step there)."""
    reader.UpdatePipeline(time)
    data = servermanager.Fetch(reader)
    return {data.GetMetaData(b).Get(data.NAME()): data.GetBlock(b) for b in range(data.GetNumberOfBlocks())}


def names(attributes):
    return sorted(attributes.GetArrayName(i) for i in range(attributes.GetNumberOfArrays()))


def unrenamed(name):
    # The XDMF Reader renames grids of a name it has met before: "west", "west[1]", ...
    return re.sub(r"\[\d+\]$", "", name)


# ---- the demo data set ----------------------------------------------------------------


def check_demo(folder):
    subprocess.run([tool, "demo", folder], check=True, stdout=subprocess.DEVNULL)
    file = str(Path(folder) / "demo.qb.h5")
    subprocess.run([tool, "xdmf", file], check=True, stdout=subprocess.DEVNULL)
    bundle = quaril.load(file)

    reader = XDMFReader(FileNames=[file + ".xmf"])
    reader.UpdatePipelineInformation()
    times = list(reader.TimestepValues)
    if not expect("demo: time steps", times, list(bundle.times), close=True):
        return

    for time in (times[0], times[27]):
        at = f"demo, t={time}"
        seen = blocks_at(reader, time)
        slice_ = bundle.slice(time)
        fluid = seen["fluid"]
        expect(f"{at}: fluid point arrays", names(fluid.GetPointData()), ["pressure", "velocity"])
        expect(f"{at}: fluid points and cells", (fluid.GetNumberOfPoints(), fluid.GetNumberOfCells()),
               (16 ** 3, 15 ** 3))
        pressure = slice_.grid("fluid").field("pressure")
        expect(f"{at}: fluid pressure range", fluid.GetPointData().GetArray("pressure").GetRange(),
               (pressure.min(), pressure.max()), close=True)
        particles = seen["particles"]
        expect(f"{at}: particles", (particles.GetNumberOfPoints(), names(particles.GetPointData())),
               (64, ["speed"]))
        positions = slice_.grid("particles").field("Positions")
        expect(f"{at}: first particle", particles.GetPoint(0), positions[0], close=True)
        surface = seen["surface"]
        expect(f"{at}: surface points and cells", (surface.GetNumberOfPoints(), surface.GetNumberOfCells()),
               (64, 98))
        expect(f"{at}: surface cell arrays", names(surface.GetCellData()), ["area"])
        blocks = seen["blocks"]
        expect(f"{at}: blocks", blocks.GetNumberOfBlocks(), 4)
        points = sum(blocks.GetBlock(i).GetNumberOfPoints() for i in range(blocks.GetNumberOfBlocks()))
        expect(f"{at}: points of the blocks", points, 4 * 125)
        expect(f"{at}: refined present", seen["refined"] is not None, times.index(time) % 10 == 0)
    print(f"ParaView read {len(times)} time steps of the demo data set")


# ---- every mesh kind ------------------------------------------------------------------


def pieces_of(block):
    """The data sets of a grid's block by (unrenamed) name: itself, or its fragments."""
    if block.IsA("vtkDataSet"):
        return {None: block}
    return {unrenamed(block.GetMetaData(i).Get(block.NAME())): block.GetBlock(i)
            for i in range(block.GetNumberOfBlocks())}


def flat_structured(piece):
    if not (piece.IsA("vtkImageData") or piece.IsA("vtkStructuredGrid")):
        return False
    dimensions = [0, 0, 0]
    piece.GetDimensions(dimensions)
    return 1 in dimensions


def ranges(pieces, array, components):
    """[[min, max] per component] of `array` over `pieces`, or None where missing."""
    found = [p.GetPointData().GetArray(array) or p.GetCellData().GetArray(array) for p in pieces]
    if not found or None in found or found[0].GetNumberOfComponents() != components:
        return None
    return [[min(a.GetRange(c)[0] for a in found), max(a.GetRange(c)[1] for a in found)]
            for c in range(components)]


def compare(at, block, grid, cell_arrays=True):
    """Checks one grid at one time; its cell arrays only when `cell_arrays`."""
    pieces = pieces_of(block)
    fragments = grid.get("fragments")
    if fragments is None:
        expect(f"{at}: a single data set (a refinement level would add one)", list(pieces), [None])
    else:
        expect(f"{at}: fragments", sorted(pieces), sorted(fragments))
        for name, fragment in fragments.items():
            if name in pieces:
                piece = pieces[name]
                expect(f"{at}, fragment {name}: points and cells",
                       {"points": piece.GetNumberOfPoints(), "cells": piece.GetNumberOfCells()}, fragment)
    pieces = list(pieces.values())
    expect(f"{at}: points", sum(p.GetNumberOfPoints() for p in pieces), grid["points"])
    expect(f"{at}: cells", sum(p.GetNumberOfCells() for p in pieces), grid["cells"])
    dimensions = [p.GetCell(i).GetCellDimension() for p in pieces for i in range(p.GetNumberOfCells())]
    expect(f"{at}: cell dimension", max(dimensions, default=None), grid["cell_dimension"])
    bounds = np.array([p.GetBounds() for p in pieces])
    expect(f"{at}: bounds", [f(bounds[:, i]) for i, f in enumerate([np.min, np.max] * 3)], grid["bounds"],
           close=True)
    arrays = grid["point_arrays"] + (grid["cell_arrays"] if cell_arrays else [])
    for piece in pieces:
        expect(f"{at}: point arrays", names(piece.GetPointData()), grid["point_arrays"])
        if cell_arrays:
            expect(f"{at}: cell arrays", names(piece.GetCellData()), grid["cell_arrays"])
    for array in arrays:
        written = grid["ranges"][array]
        expect(f"{at}: range of {array}", ranges(pieces, array, len(written)), written, close=True)


def check_every_kind(folder):
    run = subprocess.run([every_kind, folder], check=True, stdout=subprocess.PIPE, text=True)
    written = json.loads(run.stdout)
    steps = written["steps"]
    descriptor = str(Path(folder) / "every_kind.h5.xmf")

    reader = XDMFReader(FileNames=[descriptor])
    reader.UpdatePipelineInformation()
    # It lists the times in the order it meets them, grid after grid.
    expect("time steps", sorted(reader.TimestepValues), written["times"], close=True)
    offered = {"point": list(reader.PointArrayStatus), "cell": list(reader.CellArrayStatus)}
    grids = [grid for step in steps for grid in step["grids"].values()]
    for kind in offered:
        expect(f"{kind} arrays offered", sorted(offered[kind]),
               sorted({array for grid in grids for array in grid[f"{kind}_arrays"]}))
    for name in written["left_out"]:
        expect(f"\"{name}\" offered", name in offered["point"] + offered["cell"], False)
    expect("grids and fragments listed", sorted(unrenamed(name) for name in reader.GridStatus),
           sorted(piece for step in steps for name, grid in step["grids"].items()
                  for piece in grid.get("fragments", [name])))

    # The XDMF Reader cannot read cell fields of structured grids with a flat
    # axis (it logs "Failed to read attribute data"); the Xdmf3 reader is
    # checked for those.
    elsewhere = []
    for step in steps:
        time = step["time"]
        seen = blocks_at(reader, time)
        present = sorted(name for name, block in seen.items() if block is not None)
        expect(f"t={time}: grids", present, sorted(step["grids"]))
        for name, grid in step["grids"].items():
            if seen.get(name) is None:
                continue
            readable = not (grid["cell_arrays"] and any(map(flat_structured, pieces_of(seen[name]).values())))
            if not readable:
                elsewhere.append((time, name))
            compare(f"t={time} {name}", seen[name], grid, cell_arrays=readable)

    # The Xdmf3 reader leaves its blocks unnamed, in the order of the descriptor.
    order = [g.get("Name") for g in ElementTree.parse(descriptor).getroot().find("Domain").findall("Grid")]
    reader3 = Xdmf3ReaderT(FileName=[descriptor])
    for time, name in elsewhere:
        reader3.UpdatePipeline(time)
        block = servermanager.Fetch(reader3).GetBlock(order.index(name))
        grid = next(step["grids"][name] for step in steps if step["time"] == time)
        compare(f"t={time} {name} (Xdmf3 reader)", block, grid)
    print(f"ParaView read {len(steps)} time steps of every mesh kind")
    for name in sorted({name for _, name in elsewhere}):
        print(f"  the cell fields of {name} through the Xdmf3 reader (the XDMF Reader's"
              " \"Failed to read attribute data\")")


# ---- a series followed while it is written --------------------------------------------


def check_followed_series(folder):
    """ParaView re-reads the descriptor of a series that grew since it opened it."""
    file = str(Path(folder) / "run.h5")
    bundle = quaril.Bundle()

    def add_step(t):
        bundle[t]["cloud"].set_points(np.full((int(t) + 1, 3), t))

    add_step(0.0)
    with bundle.bind(file) as binding:
        reader = XDMFReader(FileNames=[file + ".xmf"])
        reader.UpdatePipelineInformation()
        expect("series: steps when opened", list(reader.TimestepValues), [0.0])
        for t in (1.0, 2.0, 3.0):
            add_step(t)
            binding.sync()
        ReloadFiles(reader)
        reader.UpdatePipelineInformation()
        expect("series: steps after three more syncs", list(reader.TimestepValues), [0.0, 1.0, 2.0, 3.0])
        reader.UpdatePipeline(3.0)
        cloud = servermanager.Fetch(reader)  # one grid: a data set, not blocks
        expect("series: points of the newest step", cloud.GetNumberOfPoints(), 4)
    print("ParaView re-read a series after more syncs and saw the new steps")


with tempfile.TemporaryDirectory() as folder:
    check_demo(folder)
    check_every_kind(folder)
    check_followed_series(folder)
if failures:
    print(f"{len(failures)} difference(s) between ParaView and the library:", *failures, sep="\n  ",
          file=sys.stderr)
    sys.exit(1)
