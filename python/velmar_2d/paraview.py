"""Series of files for ParaView, beside Mesh.write_vtu()."""
from __future__ import annotations

import os
from typing import Iterable

from . import _core


def write_pvd(path: str | os.PathLike[str],
              steps: Iterable[tuple[float, str | os.PathLike[str]]]) -> None:
    """Writes a .pvd file, which ParaView opens as one series, of steps (time, .vtu file).

    A relative path of a .vtu file starts from where the program runs. Write the .pvd file again
    whenever a step is added: a run that ends early then leaves a series that can be opened.
    Raises OSError with the path and the reason where the file cannot be written.
    """
    require_io()
    _core.write_pvd(os.fspath(path), [(time, os.fspath(file)) for time, file in steps])


def require_io() -> None:
    if not _core.has_io:
        raise _core.MeshError("velmar_2d was built without pugixml: no files for ParaView")
