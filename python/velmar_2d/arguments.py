"""What is checked of the arguments that meshes take."""
from __future__ import annotations

import numbers
import operator
from typing import Any, Callable, Sequence

TRANSFERS = ("first", "all", "conservative", "remap")


def number_of_transfer(transfer: str) -> int:
    if transfer not in TRANSFERS:
        raise ValueError(f"transfer is {transfer!r}; it must be one of {TRANSFERS}")
    return TRANSFERS.index(transfer)


def limit_of_nodes(most_nodes: int | None) -> int:
    """0 where there is none."""
    if most_nodes is not None and operator.index(most_nodes) < 1:
        raise ValueError(f"most_nodes is {most_nodes}; it must be above 0")
    return most_nodes or 0


def callables(size: Callable[..., Any] | float, init_data: Callable[..., Any] | None,
              vectorised: bool, init_vectorised: bool | None,
              ) -> tuple[Callable[..., Any], Callable[..., Any] | None, bool, bool]:
    """What an update asks, and whether it is asked with arrays."""
    init_vectorised = vectorised if init_vectorised is None else init_vectorised
    if isinstance(size, numbers.Real):
        spacing = float(size)
        size, vectorised = lambda *_: spacing, True
    for name, function in (("size", size), ("init_data", init_data)):
        if not callable(function) and not (function is None and name == "init_data"):
            raise TypeError(f"{name} must be callable, not {type(function).__name__}")
    return size, init_data, vectorised, init_vectorised


def hooks(inserted: Callable[..., Any] | None, removing: Callable[..., Any] | None,
          ) -> tuple[Callable[..., Any] | None, Callable[..., Any] | None]:
    for name, function in (("inserted", inserted), ("removing", removing)):
        if function is not None and not callable(function):
            raise TypeError(f"{name} must be callable, not {type(function).__name__}")
    return inserted, removing


def four_numbers(rectangle: Sequence[float]) -> tuple[float, float, float, float]:
    try:
        west, east, south, north = (float(side) for side in rectangle)
    except (TypeError, ValueError):
        raise ValueError(
            f"rectangle is {rectangle!r}; it must be (west, east, south, north)") from None
    return west, east, south, north


def not_absurd(name: str, value: int) -> int:
    number = operator.index(value)
    if abs(number) >= 2**31:
        raise ValueError(f"{name} is {number}, beyond any use")
    return number


def checked_limit(limit: int) -> int:
    limit = not_absurd("subdiv_max", limit)
    if limit < 0:
        raise ValueError(f"subdiv_max is {limit}; it must not be negative")
    return limit
