"""Kinds of side condition, and the codes that index tables hold where a link leads to no node.

    code >= 0      the index of the linked node
    code == -1     NO_LINK: nothing there
    code <= -2     the record of a side: -2 - 3 * side - kind,
                   with side 0 north, 1 east, 2 south, 3 west and kind DIRICHLET, NEUMANN or OTHER
"""
from __future__ import annotations

from typing import Any, Mapping

import numpy as np
from numpy.typing import ArrayLike, NDArray

DIRICHLET, NEUMANN, OTHER = 0, 1, 2
NO_LINK = -1
#: Names of the sides, by number.
SIDES = ("north", "east", "south", "west")

_KINDS = {"dirichlet": DIRICHLET, "neumann": NEUMANN, "other": OTHER}


def side_code(side: str, kind: int = DIRICHLET) -> int:
    """The code of a side's record.

    >>> side_code("west", NEUMANN)
    -12
    """
    return -2 - 3 * SIDES.index(side.lower()) - _kind(kind)


def side_of(codes: ArrayLike) -> NDArray[np.int32]:
    """Number of the side that each code stands for (see SIDES); -1 where it stands for none."""
    codes = np.asarray(codes, dtype=np.int32)
    return np.where(codes <= -2, (-2 - codes) // 3, -1).astype(np.int32)


def kind_of(codes: ArrayLike) -> NDArray[np.int32]:
    """Kind of condition of the side that each code stands for; -1 where it stands for none."""
    codes = np.asarray(codes, dtype=np.int32)
    return np.where(codes <= -2, (-2 - codes) % 3, -1).astype(np.int32)


def _kind(kind: Any) -> int:
    """A kind given by its number or its name."""
    number = _KINDS.get(kind.lower(), kind) if isinstance(kind, str) else kind
    if isinstance(number, (int, np.integer)) and 0 <= number <= 2:
        return int(number)
    raise ValueError(f"{kind!r} is no kind of side condition; "
                     "use DIRICHLET, NEUMANN, OTHER or their names")


def kinds_of_sides(bc_type: Any) -> Any:
    """A callable as it is; anything else as the kinds of the four sides."""
    if callable(bc_type):
        return bc_type
    if bc_type is None:
        return (DIRICHLET,) * 4
    if isinstance(bc_type, Mapping):
        unknown = [side for side in bc_type if str(side).lower() not in SIDES]
        if unknown:
            raise ValueError(f"{unknown[0]!r} is no side; sides are {', '.join(SIDES)}")
        given = {str(side).lower(): _kind(kind) for side, kind in bc_type.items()}
        return tuple(given.get(side, DIRICHLET) for side in SIDES)
    return (_kind(bc_type),) * 4
