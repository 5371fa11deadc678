"""Renders the demo data set with ParaView, read through its XDMF descriptor:
a slice through "fluid" coloured by pressure, the "particles" as spheres and
the "surface" below them. Run by `make interop` (headless):

    xvfb-run -a pvpython scripts/render_demo.py BUNDLE_TOOL PICTURE.png
"""

import subprocess
import sys
import tempfile
from pathlib import Path

from paraview.simple import (
    ColorBy,
    ExtractBlock,
    ExtractSurface,
    GenerateSurfaceNormals,
    GetActiveViewOrCreate,
    GetColorTransferFunction,
    GetScalarBar,
    Glyph,
    Outline,
    SaveScreenshot,
    Show,
    Slice,
    Text,
    XDMFReader,
    _DisableFirstRenderCameraReset,
)

tool, picture = sys.argv[1], sys.argv[2]
Step = 35  # the particles have risen above the slice, the surface's wave is mid-way
Size = [1000, 640]

with tempfile.TemporaryDirectory() as folder:
    subprocess.run([tool, "demo", folder], check=True, stdout=subprocess.DEVNULL)
    reader = XDMFReader(FileNames=[str(Path(folder) / "demo.qb.h5.xmf")])
    reader.UpdatePipelineInformation()
    time = reader.TimestepValues[Step]

    def grid(name):
        return ExtractBlock(Input=reader, Selectors=[f"/Root/{name}"])

    _DisableFirstRenderCameraReset()
    view = GetActiveViewOrCreate("RenderView")
    view.ViewSize = Size
    view.ViewTime = time
    view.OrientationAxesVisibility = 0
    view.Background = [0.12, 0.13, 0.16]
    view.UseColorPaletteForBackground = 0

    fluid = grid("fluid")
    outline = Show(Outline(Input=fluid), view)
    outline.AmbientColor = outline.DiffuseColor = [0.75, 0.75, 0.8]

    cut = Slice(Input=fluid)
    cut.SliceType.Origin = [0.5, 0.5, 0.5]
    cut.SliceType.Normal = [0, 0, 1]
    shown = Show(cut, view)
    ColorBy(shown, ("POINTS", "pressure"))
    pressure = GetColorTransferFunction("pressure")
    pressure.ApplyPreset("Cool to Warm", True)
    pressure.RescaleTransferFunction(-0.5, 1.5)
    shown.SetScalarBarVisibility(view, True)
    bar = GetScalarBar(pressure, view)
    bar.Title = "pressure"
    bar.ComponentTitle = ""
    bar.WindowLocation = "Any Location"
    bar.Position = [0.88, 0.2]
    bar.ScalarBarLength = 0.6
    bar.RangeLabelFormat = "%-#.1f"
    bar.TitleFontSize = bar.LabelFontSize = 18

    spheres = Glyph(Input=grid("particles"), GlyphType="Sphere")
    spheres.ScaleArray = ["POINTS", "No scale array"]
    spheres.ScaleFactor = 0.03
    spheres.GlyphMode = "All Points"
    particles = Show(spheres, view)
    ColorBy(particles, None)
    particles.AmbientColor = particles.DiffuseColor = [1.0, 0.8, 0.2]

    # Normals at the vertices shade the wave smoothly.
    surface = Show(GenerateSurfaceNormals(Input=ExtractSurface(Input=grid("surface"))), view)
    ColorBy(surface, None)
    surface.AmbientColor = surface.DiffuseColor = [0.45, 0.72, 0.62]
    surface.Specular = 0.3
    surface.Opacity = 0.75

    label = Show(Text(Text=f"Quaril demo data set, t = {time:.2f}"), view)
    label.WindowLocation = "Upper Left Corner"
    label.FontSize = 20
    label.Color = [0.85, 0.85, 0.9]

    view.CameraPosition = [2.5, -1.8, 1.7]
    view.CameraFocalPoint = [0.55, 0.5, 0.38]
    view.CameraViewUp = [0, 0, 1]
    view.CameraViewAngle = 31
    SaveScreenshot(picture, view, ImageResolution=Size, CompressionLevel="9")
print(f"rendered the demo data set at t={time:.2f} into {picture}")
