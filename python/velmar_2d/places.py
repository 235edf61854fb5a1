"""Places of the caller's as arrays."""
from __future__ import annotations

from typing import Any, NamedTuple

import numpy as np
from numpy.typing import ArrayLike, NDArray


class LineCut(NamedTuple):
    """The pieces into which the control cells cut a line, in its order."""

    #: (m,): the node of each piece, by its index.
    nodes: NDArray[np.int32]
    #: (m,): distance from the start of the line, where it enters the control cell.
    enter: NDArray[np.float64]
    #: (m,): where it leaves it.
    leave: NDArray[np.float64]
    #: (m, 2): the place where it enters.
    start: NDArray[np.float64]
    #: (m, 2): the place where it leaves.
    end: NDArray[np.float64]
    #: (m, k): the data of the node.
    values: NDArray[np.float64]


def as_places(x: ArrayLike, y: ArrayLike) -> tuple[NDArray[np.float64], tuple[int, ...]]:
    """Rows of x and y, and the shape that both have together."""
    both = np.broadcast_arrays(np.asarray(x, dtype=np.float64), np.asarray(y, dtype=np.float64))
    return np.stack([one.ravel() for one in both], axis=1), both[0].shape


def pixels(rectangle: tuple[float, float, float, float], nx: int,
           ny: int | None) -> tuple[NDArray[np.float64], NDArray[np.float64]]:
    """x and y of the centres of pixels that fill a rectangle."""
    west, east, south, north = rectangle
    if ny is None:
        ny = max(1, round(nx * (north - south) / (east - west)))
    for name, number in (("nx", nx), ("ny", ny)):
        if number < 1:
            raise ValueError(f"{name} is {number}; it must be above 0")
    return (west + (np.arange(nx) + 0.5) * ((east - west) / nx),
            south + (np.arange(ny) + 0.5) * ((north - south) / ny))


def one_value(values: NDArray[np.float64], value: int | None, shape: tuple[int, ...]) -> Any:
    """One column in the shape of the places, or all of them."""
    if value is None:
        return values.reshape(*shape, values.shape[1])
    columns = values.shape[1]
    if not -columns <= value < columns:
        raise IndexError(f"there is no value {value}: the nodes have {columns}")
    return values[:, value].reshape(shape)[()]
