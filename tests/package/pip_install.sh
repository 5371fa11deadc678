#!/usr/bin/env bash
# `pip install .` as the README gives it, offline, from a clean clone of the
# repository into a fresh virtual environment; the package is then imported
# from outside the source tree, and xarray finds its engine by name.
set -euo pipefail
root="$1"
python="${2:-/usr/bin/python3}"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
git clone -q "$root" "$work/quaril"
cd "$work/quaril"
"$python" -m venv --system-site-packages .venv
PIP_NO_INDEX=1 .venv/bin/pip install -q --no-build-isolation .
cd "$work"
"$work/quaril/.venv/bin/python" - <<'PYTHON'
import numpy as np
import xarray as xr

import quaril

assert "/site-packages/quaril/" in quaril.__file__, quaril.__file__
bundle = quaril.Bundle()
for t in (0.0, 0.25):
    grid = bundle[t]["fluid"]
    grid.set_uniform((3, 2, 2))
    grid.add_field("p", np.arange(12.0) + t)
bundle.save("run.qb.h5")
fluid = xr.open_dataset("run.qb.h5", engine="quaril", group="fluid")
assert fluid.p.sel(time=0.25).values.sum() == 66 + 12 * 0.25
print("installed and imported from", quaril.__file__)
PYTHON
