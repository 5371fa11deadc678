"""Time-dependent scientific data: bundles of time steps holding grids with fields.

    import quaril
    run = quaril.load("run.h5")                      # opens lazily
    for t, grid in run.evolution("fluid"):
        pressure = grid["pressure"]                   # numpy array, read now
"""

import os
from typing import Iterator, Literal, Optional, Sequence, Union

import numpy as np
import numpy.typing as npt

Path = Union[str, os.PathLike]


def load(paths: Union[Path, Sequence[Path]]) -> Bundle:
    """Opens a file (or several, merged) lazily; OSError with the reason on failure."""


def check(path: Path) -> CheckReport:
    """Reads everything of a file or series, one array at a time, and reports every problem
    with where it is; OSError when there is no such file."""


def follow(path: Path, idle: Optional[float] = None) -> Follow:
    """Yields (time, Slice) for every step of a series already there, then each new one as
    its sync completes (its values complete as of that sync); ends at the writer's closing
    record (released binding), or after `idle` seconds without news. OSError when the file
    cannot be read; ValueError for a negative idle time.

        for t, step in quaril.follow("run.h5", idle=600):
            plot(t, step["fluid"].field("pressure"))
    """


def open_datasets(path: Path, times: Optional[tuple[Optional[float], Optional[float]]] = None
                  ) -> dict:
    """Every grid of a file or series as an xarray Dataset, by grid name; `times` keeps
    the steps in (first, last)."""


class XarrayBackend:
    """xarray's engine "quaril" as a class: xr.open_dataset(path, engine=quaril.XarrayBackend,
    group="fluid", times=None, drop_variables=None) gives one grid as a Dataset over time,
    read lazily step by step (only the box asked for of each step)."""


class Catalog:
    """What a file or series holds, by grid and time, read once from its index without making
    a bundle; load() makes bundles of chosen times from it."""
    def __init__(self, path: Path) -> None:
        """Opens the file or series; OSError with the reason on failure."""
    @property
    def path(self) -> str: ...
    @property
    def grids(self) -> list[str]:
        """The grids' names, sorted."""
    @property
    def times(self) -> npt.NDArray[np.float64]:
        """Every time, ascending."""
    def times_of(self, name: str) -> npt.NDArray[np.float64]:
        """The times at which grid `name` is stored (none for another name)."""
    def load(self, times: Sequence[float]) -> Bundle:
        """A bundle of the slices at `times` (others left out), read lazily as load() reads."""


class Follow(Iterator[tuple[float, Slice]]):
    """The steps of a series as they land; see follow()."""
    def __iter__(self) -> Follow: ...
    def __next__(self) -> tuple[float, Slice]: ...
    @property
    def bundle(self) -> Bundle:
        """Every step taken up so far; a step that a later sync added to reads anew."""
    @property
    def closed(self) -> bool:
        """Whether the series ended with its writer's closing record."""


def write_xdmf(path: Path) -> None:
    """Writes PATH.xmf anew for visualisation programs (not while the series is bound)."""


class Problem:
    """A part of a file that could not be read, and where and why; str() is the whole text."""
    file: str
    where: str
    reason: str
    grid: Optional[str]
    time: Optional[float]
    lost: bool
    """Whether its data are missing (False: only the file is damaged, the data were read)."""


class CheckReport:
    """What a check read, and every problem it found; true when everything reads."""
    file: str
    problems: list[Problem]
    grids: int
    arrays: int
    bytes: int
    ok: bool
    def __bool__(self) -> bool: ...


class Grid:
    """A mesh at one time step, with its fields."""
    name: str
    time: float
    @property
    def fields(self) -> list[str]:
        """Names of the grid's fields (vertices and cells)."""
    @property
    def uniform(self) -> Optional[dict]:
        """For a uniform grid: {'origin', 'spacing', 'extents'}; None otherwise."""
    def field(self, name: str, on: Literal["", "vertices", "cells"] = "",
              region: Union[None, int, slice, tuple[Union[int, slice], ...]] = None
              ) -> Union[np.ndarray, list[np.ndarray]]:
        """The values of field `name` as a numpy array viewing the library's memory (a list of
        arrays for a fragmented field); points and vectors as (..., 3). With `region` (ints
        and slices over the array's axes, as numpy orders them), only the box that holds it is
        read from the file, unchecked by the array's checksum. KeyError when absent, OSError
        when the data cannot be read, IndexError for a region outside the array."""
    def layout(self, name: str) -> dict:
        """{'on': 'vertices' | 'cells', 'shapes': [one tuple per fragment], 'dtype'}: what
        field `name` holds, reading no data."""
    # A mapping of field names to values.
    def keys(self) -> list[str]: ...
    def __iter__(self) -> Iterator[str]: ...
    def __len__(self) -> int: ...
    def __contains__(self, name: str) -> bool: ...
    def __getitem__(self, name: str) -> Union[np.ndarray, list[np.ndarray]]: ...
    def get(self, name: str, default: object = None) -> object: ...
    def items(self) -> list[tuple[str, Union[np.ndarray, list[np.ndarray]]]]: ...
    @property
    def attributes(self) -> dict:
        """The grid's attributes (a copy): numbers, texts, and lists of either."""
    def set_attribute(self, name: str, value: Union[int, float, str, list]) -> None: ...
    def set_uniform(self, extents: Sequence[int], origin: Sequence[float] = (0, 0, 0),
                    spacing: Sequence[float] = (1, 1, 1)) -> None:
        """Makes the grid uniform: extents vertices per axis from origin in steps of spacing."""
    def set_points(self, points: npt.ArrayLike) -> None:
        """Makes the grid a point cloud of an (n, 3) array."""
    def set_triangles(self, points: npt.ArrayLike, cells: npt.ArrayLike) -> None:
        """Makes the grid a triangle surface: (n, 3) points, (m, 3) vertex indices."""
    def add_field(self, name: str, array: npt.ArrayLike,
                  on: Literal["vertices", "cells"] = "vertices") -> None:
        """Adds a field from a numpy array (copied once); float64 arrays with a last axis of 3
        are vectors. ValueError when the sizes do not match."""


class Slice:
    """The grids of one time step."""
    @property
    def time(self) -> float: ...
    @property
    def grids(self) -> list[str]:
        """The names of its grids, those that could not be read among them."""
    def __getitem__(self, name: str) -> Grid:
        """The grid `name`, made when missing; OSError when it could not be read."""
    def grid(self, name: str) -> Grid:
        """The grid `name`; KeyError when there is none, OSError when it could not be read."""
    def __contains__(self, name: str) -> bool: ...
    def __len__(self) -> int: ...
    # A mapping of grid names to grids (though slice[name] makes a missing one).
    def keys(self) -> list[str]: ...
    def __iter__(self) -> Iterator[str]: ...
    def get(self, name: str, default: object = None) -> Optional[Grid]: ...
    def items(self) -> list[tuple[str, Grid]]: ...
    @property
    def attributes(self) -> dict: ...
    def set_attribute(self, name: str, value: Union[int, float, str, list]) -> None: ...


class Binding:
    """A bundle bound to a file; a context manager that syncs and unbinds at its end."""
    def sync(self) -> None:
        """Writes what is new since the last sync; OSError on failure."""
    def release(self) -> None:
        """Syncs once more and unbinds."""
    def __enter__(self) -> Binding: ...
    def __exit__(self, *args) -> None: ...


class Bundle:
    """A time-dependent data set: time steps holding grids."""
    def __init__(self) -> None: ...
    @property
    def times(self) -> np.ndarray:
        """The times of the steps, ascending."""
    @property
    def grids(self) -> list[str]:
        """The names of all grids."""
    def __len__(self) -> int: ...
    def __iter__(self) -> Iterator[tuple[float, Slice]]: ...
    def __getitem__(self, t: float) -> Slice:
        """The time step at exactly `t`, made when missing."""
    # A mapping of times to slices; iterating gives (time, slice) pairs, as items().
    def keys(self) -> list[float]: ...
    def __contains__(self, t: float) -> bool: ...
    def get(self, t: float, default: object = None) -> Optional[Slice]: ...
    def items(self) -> list[tuple[float, Slice]]: ...
    def prefetch(self, threads: int = 0,
                 times: Optional[tuple[Optional[float], Optional[float]]] = None) -> int:
        """Reads every array of the steps in times=(first, last) now, over `threads` threads
        (0: one per core); returns how many could not be read (see problems)."""
    def values_over_time(self, grid: str, field: str, index: Sequence[int],
                         times: Optional[tuple[Optional[float], Optional[float]]] = None
                         ) -> tuple[np.ndarray, np.ndarray]:
        """(times, values): field `field` of grid `grid` at element `index` (numpy's order)
        at every step in times=(first, last) that holds the grid, in one call, each step
        reading only that element where it can (C++: valuesOverTime). OSError naming the step
        where the field is missing, changes its extents or type, or cannot be read."""
    def times_of(self, name: str) -> np.ndarray:
        """The times of the steps that hold grid `name`, reading no step."""
    @property
    def attributes(self) -> dict: ...
    def set_attribute(self, name: str, value: Union[int, float, str, list]) -> None: ...
    def _repr_html_(self) -> str:
        """The summary `bundle-tool info` prints, for notebooks."""
    def slice(self, t: float) -> Slice:
        """The time step at exactly `t`; KeyError when there is none."""
    def most_recent(self, t: float, name: str) -> Optional[Grid]:
        """The grid `name` as of time `t` (at or before it), or None."""
    def evolution(self, name: str) -> Iterator[tuple[float, Grid]]:
        """(time, grid) over every step that holds `name`, each read when reached."""
    def first(self, name: str) -> Optional[tuple[float, Grid]]: ...
    def last(self, name: str) -> Optional[tuple[float, Grid]]: ...
    def xml(self) -> str: ...
    def memory(self) -> tuple[int, int]:
        """(resident, deferred): bytes of field data in memory, and still to be read."""
    @property
    def problems(self) -> list[Problem]:
        """What of its files could not be read so far (slices are read on first use)."""
    def save(self, path: Path, grids: Optional[Sequence[str]] = None,
             compress: Union[None, int, str] = None, xdmf: bool = True,
             skip_damaged: bool = False) -> None:
        """Saves the bundle (only `grids` when given) as one file, atomically, with PATH.xmf
        for visualisation programs unless xdmf=False; OSError on failure, also when it would
        lose what could not be read (unless skip_damaged=True leaves that out)."""
    def bind(self, path: Path, append: bool = False, xdmf: bool = True,
             skip_damaged: bool = False, durable: bool = False) -> Binding:
        """Binds the bundle to a series at `path` (new, or continued with append=True); each
        sync keeps PATH.xmf up to date unless xdmf=False. A completed sync survives the
        program's crash or kill; with durable=True also a power loss (each sync flushes to
        disk). OSError rather than lose what could not be read, unless skip_damaged=True."""
    def sync(self) -> None:
        """Writes what is new to the bound series; ValueError when not bound."""
    def refresh(self) -> tuple[list[float], list[float]]:
        """Takes up what was synced to the series the bundle was loaded from since it last
        looked; (added, changed) times. OSError when it was loaded from no series."""
