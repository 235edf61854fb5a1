"""Meshes in HDF5 files, beside the methods of Mesh."""
from __future__ import annotations

import os
from typing import Any, Mapping, NamedTuple

import numpy as np
from numpy.typing import ArrayLike, NDArray

from . import _core


class SavedMesh(NamedTuple):
    """A mesh in a file."""

    name: str
    nodes: int
    #: Its number in a series; None: no series.
    step: int | None
    time: float | None


def saved_meshes(path: str | os.PathLike[str]) -> list[SavedMesh]:
    """What a file holds, by name and step."""
    return [SavedMesh(*found) for found in _core.saved_meshes(readable(path))]


def load_arrays(path: str | os.PathLike[str], name: str = "mesh", *, step: int | None = None,
                time: float | None = None) -> dict[str, NDArray[np.float64]]:
    """The arrays that were saved with a mesh, by name; step and time are those of Mesh.load()."""
    return dict(_core.load_arrays(readable(path), name, step, time))


def require_hdf5() -> None:
    if not _core.has_hdf5:
        raise _core.MeshError("velmar_2d was built without HDF5: no meshes in files, no pickles")


def readable(path: str | os.PathLike[str]) -> str:
    """The path as text. Raises OSError where nothing is there."""
    require_hdf5()
    os.stat(path)
    return os.fspath(path)


def own_arrays(arrays: Mapping[str, ArrayLike] | None) -> list[tuple[str, NDArray[np.float64]]]:
    """The arrays as they are saved. Raises where one would lose something."""
    checked: list[tuple[str, Any]] = []
    for name, values in (arrays or {}).items():
        array = np.asarray(values)
        if not np.can_cast(array.dtype, np.float64, "safe"):
            raise TypeError(f"the array {name!r} is of {array.dtype}, which float64 cannot hold")
        largest = 2**53  # up to here float64 holds every integer
        if array.dtype.kind in "iu" and ((array > largest) | (array < -largest)).any():
            raise ValueError(f"the array {name!r} has integers that float64 cannot hold")
        if array.ndim not in (1, 2):
            raise ValueError(f"the array {name!r} has {array.ndim} dimensions; it must have 1 or 2")
        checked.append((name, array.astype(np.float64)))
    return checked
