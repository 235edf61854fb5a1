"""Faults of one process, told to all."""
from __future__ import annotations

from typing import Any, Callable

from ._core import MeshError


class Noting:
    """Notes what functions raise: it becomes the cause of the error that all processes raise."""

    def __init__(self) -> None:
        self.fault: BaseException | None = None

    def __call__(self, function: Callable[..., Any] | None) -> Callable[..., Any] | None:
        if function is None:
            return None

        def noted(*arguments: Any) -> Any:
            try:
                return function(*arguments)
            except BaseException as fault:
                self.fault = fault
                raise
        return noted

    def kinds(self, kinds: tuple[Any, bool]) -> tuple[Any, bool]:
        return (self(kinds[0]) if callable(kinds[0]) else kinds[0]), kinds[1]

    def __enter__(self) -> Noting:
        return self

    def __exit__(self, kind: Any, error: BaseException | None, place: Any) -> None:
        if isinstance(error, MeshError) and self.fault is not None:
            error.__cause__ = self.fault


def told_by_first(comm: Any, work: Callable[[], Any]) -> Any:
    """What process 0 makes of it, on all. So is what it raises."""
    fault, told = None, (None, None)
    if comm.rank == 0:
        try:
            told = (work(), None)
        except Exception as found:
            fault, told = found, (None, f"{type(found).__name__}: {found}")
    result, text = comm.bcast(told)
    if text is not None:
        raise MeshError(f"velmar_2d: ERROR on process 0 of {comm.size}: {text}") from fault
    return result
