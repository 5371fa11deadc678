"""Time-dependent scientific data: bundles of time steps holding grids with fields.

    import quaril
    run = quaril.load("run.h5")                      # opens lazily
    for t, grid in run.evolution("fluid"):
        pressure = grid["pressure"]                   # numpy array, read now

xarray opens one grid of a file as a Dataset (``engine="quaril"``), lazily;
see ``quaril.open_datasets`` and ``quaril.XarrayBackend``.
"""

from ._core import *  # noqa: F401,F403
from ._core import __doc__ as _core_doc  # noqa: F401


def open_datasets(path, times=None):
    """Every grid of the file or series `path` as an xarray Dataset, by grid name (see
    XarrayBackend); `times` = (first, last) keeps the steps in that range."""
    from .xarray_backend import open_datasets as opened

    return opened(path, times)


def __getattr__(name):
    # The xarray backend is imported when first asked for: xarray is optional.
    if name == "XarrayBackend":
        from .xarray_backend import XarrayBackend

        return XarrayBackend
    raise AttributeError(f"module 'quaril' has no attribute {name!r}")
