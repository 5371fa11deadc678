"""One grid of a bundle file as an xarray Dataset, read lazily step by step.

Registered as xarray's engine "quaril" (``xr.open_dataset(path, engine="quaril",
group="fluid")``), and usable without the registration as
``engine=quaril.XarrayBackend``.
"""

import threading

import numpy as np
from xarray import Dataset, Variable
from xarray.backends import BackendArray, BackendEntrypoint
from xarray.core import indexing

from . import _core

# The core serialises its own file access; this keeps dask's threads from
# interleaving the reads of one variable.
_LOCK = threading.Lock()

# Steps read one at a time load a bundle of that step alone from the
# catalog; past this many, one bundle of every chosen step serves the rest.
_FEW_STEPS = 8


class _Layout:
    """What one step of a grid holds: each field's location, shape and type,
    and the coordinates that do not change."""

    def __init__(self, grid):
        self.uniform = grid.uniform
        self.fields = {}
        for name in grid.fields:
            if self.uniform is not None and name == "Positions":
                continue  # the coordinates x, y, z say it
            layout = grid.layout(name)
            if len(layout["shapes"]) != 1:
                raise ValueError(f"field \"{name}\" of grid \"{grid.name}\" at time {grid.time!r} "
                                 f"has {len(layout['shapes'])} fragments: xarray reads one array "
                                 "per step")
            self.fields[name] = (layout["on"], tuple(layout["shapes"][0]), layout["dtype"])

    def dims(self, name):
        on, shape, _ = self.fields[name]
        if self.uniform is not None:
            axes = ("z", "y", "x") if on == "vertices" else ("cell_z", "cell_y", "cell_x")
            spatial = axes[len(axes) - min(len(shape), 3):]
        else:
            spatial = ("point",) if on == "vertices" else ("cell",)
        rest = shape[len(spatial):]
        extra = tuple("component" if n == 3 and i == len(rest) - 1 else f"{name}_axis{i}"
                      for i, n in enumerate(rest))
        return ("time",) + spatial + extra

    def differences(self, other):
        """What differs from `other`, a layout of another step; empty when nothing."""
        if set(self.fields) != set(other.fields):
            return f"its fields are {sorted(other.fields)}, not {sorted(self.fields)}"
        for name, (on, shape, dtype) in sorted(self.fields.items()):
            if other.fields[name] != (on, shape, dtype):
                o = other.fields[name]
                return (f"field \"{name}\" is {o[1]} {o[2]} on {o[0]}, "
                        f"not {shape} {dtype} on {on}")
        if self.uniform != other.uniform:
            return "its uniform extents, origin or spacing differ"
        return ""


class _StepArray(BackendArray):
    """A field over the chosen steps; indexing reads only the steps asked for."""

    def __init__(self, store, name, shape, dtype):
        self.store, self.name = store, name
        self.shape = (len(store.times),) + tuple(shape)
        self.dtype = dtype

    def __getitem__(self, key):
        return indexing.explicit_indexing_adapter(
            key, self.shape, indexing.IndexingSupport.BASIC, self._read)

    def _read(self, key):
        steps = np.arange(len(self.store.times))[key[0]]
        rest = tuple(key[1:])
        dims = self.store.layout.dims(self.name)
        spatial = len(dims) - 1 - (dims[-1] == "component")
        if (np.ndim(steps) == 1 and len(steps) > 1 and len(rest) >= spatial
                and all(isinstance(k, (int, np.integer)) for k in rest[:spatial])):
            # One element over many steps: read in one call.
            return self.store.element_over_time(steps, self.name, rest[:spatial])[
                (slice(None),) + rest[spatial:]]
        whole = all(isinstance(k, slice) and k == slice(None) for k in rest)
        region = None if whole else rest  # a box of each step: only that is read
        if np.ndim(steps) == 0:
            return self.store.values(int(steps), self.name, region)
        out = np.empty((len(steps),) + np.empty(self.shape[1:], dtype=bool)[rest].shape,
                       self.dtype)
        for i, step in enumerate(steps):
            out[i] = self.store.values(int(step), self.name, region)
        return out


class _Store:
    """A grid of a file or series over the chosen times, read through its catalog."""

    def __init__(self, catalog, group, times):
        self.catalog, self.group, self.times = catalog, group, times
        self._whole = None  # a bundle of every chosen step, once many are read
        self._visits = 0
        first_bundle = catalog.load([float(times[0])])
        first = first_bundle.slice(float(times[0])).grid(group)
        self.bundle_attributes = first_bundle.attributes
        self.layout = _Layout(first)
        self.grid_attributes = first.attributes
        if len(times) > 1 and self.layout.differences(_Layout(self._grid(len(times) - 1))):
            # Named at the first step where it changes: found only when it does.
            for step in range(1, len(times)):
                self._require_same(step)

    def _bundle(self, steps):
        if self._whole is None:
            self._visits += len(steps)
            if self._visits > _FEW_STEPS:
                self._whole = self.catalog.load(self.times.tolist())
        if self._whole is not None:
            return self._whole
        return self.catalog.load([float(self.times[step]) for step in steps])

    def _grid(self, step):
        return self._bundle([step]).slice(float(self.times[step])).grid(self.group)

    def _require_same(self, step):
        differs = self.layout.differences(_Layout(self._grid(step)))
        if differs:
            raise ValueError(f"grid \"{self.group}\" changes at time {self.times[step]!r}: "
                             f"{differs}; choose a time range in which it does not (times=...)")

    def element_over_time(self, steps, name, index):
        """Field `name` at `index` at the given steps (ascending), in one call."""
        with _LOCK:
            chosen = self.times[steps]
            bundle = self._whole if self._whole is not None else self.catalog.load(chosen.tolist())
            times, values = bundle.values_over_time(
                self.group, name, [int(i) for i in index], times=(chosen[0], chosen[-1]))
            keep = np.isin(times, chosen)  # the grid's steps in that range, of which these
            if keep.sum() != len(chosen):
                raise ValueError(f"grid \"{self.group}\" lacks some of the chosen steps")
            return np.asarray(values)[keep]

    def values(self, step, name, region=None):
        """Field `name` at `step`, or the part `region` of it (read alone)."""
        with _LOCK:
            grid = self._grid(step)
            on, shape, dtype = self.layout.fields[name]
            layout = grid.layout(name)
            if layout["on"] != on or layout["shapes"] != [shape] or layout["dtype"] != dtype:
                self._require_same(step)
            return np.asarray(grid.field(name, on=on, region=region))


def _coordinates(layout, times):
    coords = {"time": Variable(("time",), np.asarray(times, dtype=float))}
    if layout.uniform is not None:
        extents = layout.uniform["extents"]
        for axis, letter in enumerate("xyz"[:len(extents)]):
            origin, spacing = layout.uniform["origin"][axis], layout.uniform["spacing"][axis]
            coords[letter] = Variable((letter,), origin + spacing * np.arange(extents[axis]))
    return coords


def open_grid(path, group, times=None, drop_variables=None, catalog=None):
    """The grid `group` of the file or series `path` as a Dataset (see module doc);
    `catalog`, the file's catalog when it is open already."""
    catalog = catalog or _core.Catalog(path)
    grids = catalog.grids
    if group is None:
        if len(grids) != 1:
            raise ValueError(f"{path} holds the grids {grids}: name one (group=...)")
        group = grids[0]
    if group not in grids:
        raise KeyError(f"no grid \"{group}\" in {path}; there are {grids}")
    held = catalog.times_of(group)
    if times is not None:
        first, last = times
        held = held[(held >= (-np.inf if first is None else first))
                    & (held <= (np.inf if last is None else last))]
        if len(held) == 0:
            raise ValueError(f"grid \"{group}\" has no step in the times {times!r}")
    store = _Store(catalog, group, held)
    coords = _coordinates(store.layout, held)
    variables = {}
    for name, (on, shape, dtype) in store.layout.fields.items():
        if drop_variables and name in drop_variables:
            continue
        data = indexing.LazilyIndexedArray(_StepArray(store, name, shape, dtype))
        target = coords if name == "Positions" else variables
        dims = store.layout.dims(name)
        # With chunks={}, dask gets one chunk per step: a step is read whole.
        chunks = dict(zip(dims, (1,) + tuple(shape)))
        target["positions" if name == "Positions" else name] = Variable(
            dims, data, {"location": on}, encoding={"preferred_chunks": chunks})
    # The bundle's attributes, then the grid's (of its first step), then where it is from.
    attrs = {**store.bundle_attributes, **store.grid_attributes, "grid": group, "file": str(path)}
    dataset = Dataset(variables, coords=coords, attrs=attrs)
    dataset.set_close(None)
    return dataset


class XarrayBackend(BackendEntrypoint):
    """xarray's engine "quaril": one grid of a bundle file or series per Dataset."""

    description = "Bundle files and series of Quaril: one grid as a Dataset over time"
    open_dataset_parameters = ("filename_or_obj", "group", "times", "drop_variables")

    def open_dataset(self, filename_or_obj, *, group=None, times=None, drop_variables=None):
        import os
        return open_grid(os.fspath(filename_or_obj), group, times, drop_variables)

    def guess_can_open(self, filename_or_obj):
        # Series by their journal, files by the directory that saves put
        # first, or by the name the library gives them (other HDF5 files are
        # other engines').
        import os
        try:
            path = os.fspath(filename_or_obj)
            if str(path).endswith(".qb.h5"):
                return True
            with open(path, "rb") as file:
                return file.read(8) in (b"QBSERIES", b"QRLDIR01")
        except (OSError, TypeError):
            return False


def open_datasets(path, times=None):
    """Every grid of the file or series `path` as a Dataset, by name."""
    catalog = _core.Catalog(path)  # one reading of the index serves every grid
    return {name: open_grid(path, name, times, catalog=catalog) for name in catalog.grids}
