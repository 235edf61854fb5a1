"""How far an update has come, for the eye."""
from __future__ import annotations

import contextlib
import sys
from typing import Any, Callable, Iterator

Progress = Callable[[str, int, int], Any]


@contextlib.contextmanager
def shown(progress: bool | Progress) -> Iterator[Progress | None]:
    """What is to be told of phases, of the nodes done in them and of those known when they began."""
    if not progress:
        yield None
    elif callable(progress):
        yield progress
    else:
        try:
            from tqdm.auto import tqdm
        except ImportError:
            yield _tell
            return
        bar = _Bar(tqdm)
        try:
            yield bar
        finally:
            bar.close()


def _tell(phase: str, done: int, known: int) -> None:
    print(f"{phase}: {done} of {known} nodes", file=sys.stderr)


class _Bar:
    def __init__(self, tqdm: Any) -> None:
        self._tqdm, self._bar, self._phase = tqdm, None, ""

    def __call__(self, phase: str, done: int, known: int) -> None:
        if self._bar is None or phase != self._phase:
            self.close()
            self._bar = self._tqdm(total=known, desc=phase, unit=" nodes", leave=False)
            self._phase = phase
        self._bar.total = max(known, done)
        self._bar.update(done - self._bar.n)

    def close(self) -> None:
        if self._bar is not None:
            self._bar.close()
        self._bar = None
