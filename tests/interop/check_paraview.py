"""ParaView as a real client: it opens the XDMF descriptor of the demo data
set, and what it sees is checked against what the library wrote (read back
through the quaril module). Run by `make interop`:

    xvfb-run -a pvpython tests/interop/check_paraview.py BUNDLE_TOOL MODULE_DIR
"""

import subprocess
import sys
import tempfile
from pathlib import Path

import numpy as np
from paraview import servermanager
from paraview.simple import XDMFReader

tool, module_dir = sys.argv[1], sys.argv[2]
sys.path.insert(0, module_dir)
import quaril  # noqa: E402


def blocks_at(reader, time):
    reader.UpdatePipeline(time)
    data = servermanager.Fetch(reader)
    return {data.GetMetaData(b).Get(data.NAME()): data.GetBlock(b) for b in range(data.GetNumberOfBlocks())}


def names(attributes):
    return sorted(attributes.GetArrayName(i) for i in range(attributes.GetNumberOfArrays()))


with tempfile.TemporaryDirectory() as folder:
    subprocess.run([tool, "demo", folder], check=True, stdout=subprocess.DEVNULL)
    file = str(Path(folder) / "demo.qb.h5")
    subprocess.run([tool, "xdmf", file], check=True, stdout=subprocess.DEVNULL)
    bundle = quaril.load(file)

    reader = XDMFReader(FileNames=[file + ".xmf"])
    reader.UpdatePipelineInformation()
    times = list(reader.TimestepValues)
    assert np.array_equal(times, bundle.times), times

    for time in (times[0], times[27]):
        seen = blocks_at(reader, time)
        slice_ = bundle.slice(time)
        fluid = seen["fluid"]
        assert names(fluid.GetPointData()) == ["pressure", "velocity"], names(fluid.GetPointData())
        assert (fluid.GetNumberOfPoints(), fluid.GetNumberOfCells()) == (16 ** 3, 15 ** 3)
        pressure = slice_.grid("fluid").field("pressure")
        assert np.allclose(fluid.GetPointData().GetArray("pressure").GetRange(),
                           (pressure.min(), pressure.max())), time
        particles = seen["particles"]
        assert particles.GetNumberOfPoints() == 64 and names(particles.GetPointData()) == ["speed"]
        positions = slice_.grid("particles").field("Positions")
        first = particles.GetPoint(0)
        assert np.allclose(first, positions[0]), (first, positions[0])
        surface = seen["surface"]
        assert (surface.GetNumberOfPoints(), surface.GetNumberOfCells()) == (64, 98)
        assert names(surface.GetCellData()) == ["area"]
        blocks = seen["blocks"]
        assert blocks.GetNumberOfBlocks() == 4
        assert sum(blocks.GetBlock(i).GetNumberOfPoints() for i in range(4)) == 4 * 125
        assert (seen["refined"] is not None) == (times.index(time) % 10 == 0)
    print(f"ParaView read {len(times)} time steps of the demo data set as written")
