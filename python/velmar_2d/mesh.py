"""The mesh."""
from __future__ import annotations

import math
import numbers
import operator
import os
import weakref
from typing import Any, Callable, NamedTuple, Sequence

import numpy as np
from numpy.typing import NDArray

from . import _core, links
from .nodes import Nodes

_current: weakref.ReferenceType[Mesh] | None = None


class UpdateStatistics(NamedTuple):
    """What an update did. Inserted minus removed is the change of the number of nodes."""

    #: Nodes whose wanted spacing was asked for; twice, if by both passes.
    visited: int
    inserted: int
    removed: int
    #: Insertions that the wanted spacing asked for and the limit forbade.
    refused: int


class Finding(NamedTuple):
    """A rule of the mesh that does not hold at some place."""

    rule: str
    text: str
    #: Index of the node; None: the mesh as a whole.
    node: int | None


def current() -> Mesh | None:
    """The mesh of this process, or None."""
    mesh = _current() if _current is not None else None
    return mesh if mesh is not None and mesh.is_alive else None


class Mesh:
    """An adaptive mesh of a rectangle. There is one at a time in a process.

    rectangle    (west, east, south, north)
    nx, ny       nodes of the first grid along x and y. Its cells are squares of the width
                 (east - west) / (nx - 1); where they do not fit the height the north side is
                 moved, with a warning. Without ny the number is chosen that fits best.
    subdiv_max   limit of subdivision, the highest level that a node may have
    n_cell_data  data values of each node, 0.0 at first
    bc_type      the kind of condition on the sides: DIRICHLET, NEUMANN or OTHER (or their names)
                 for all; a mapping from "north", "east", "south", "west"; or a callable
                 bc_type(x, y, side) with the side as "North" and so on, kept for later updates.
                 Without: DIRICHLET
    vectorised   whether a callable bc_type takes arrays of places and returns an array of kinds,
                 or takes one place and returns one

    Raises MeshError where there is a mesh already, or the library refuses.
    Delete it with delete(), by leaving a `with` block, or by letting it go.
    """

    def __init__(self, rectangle: Sequence[float] = (0.0, 1.0, 0.0, 1.0), nx: int = 17,
                 ny: int | None = None, subdiv_max: int = 10, n_cell_data: int = 1,
                 bc_type: Any = None, *, vectorised: bool = True) -> None:
        global _current
        self._alive = False
        west, east, south, north = _four_numbers(rectangle)
        nx = operator.index(nx)
        if ny is None:
            ny = _fitting_ny(west, east, south, north, nx)
        if operator.index(n_cell_data) < 0:
            raise ValueError(f"n_cell_data is {n_cell_data}; it must not be negative")
        kinds = links.kinds_of_sides(bc_type)
        if current() is not None:
            raise _core.MeshError("velmar_2d: there is a mesh already, and one at a time is all "
                                  "there can be: delete() it first (velmar_2d.current() is it)")
        _core.delete_mesh()  # one whose owner could not
        try:
            _core.make_mesh((west, east, south, north), nx, operator.index(ny),
                            operator.index(subdiv_max), operator.index(n_cell_data), kinds,
                            vectorised)
        except BaseException:
            _core.delete_mesh()
            raise
        self._alive = True
        self._nodes: Nodes | None = None
        self._data_version = 0
        _current = weakref.ref(self)

    # ---------------------------------------------------------------------------------------------
    # Life
    # ---------------------------------------------------------------------------------------------

    @property
    def is_alive(self) -> bool:
        """Whether the mesh has not been deleted."""
        return self._alive

    def delete(self) -> None:
        """Deletes the mesh. Arrays that were taken from it stay. Does nothing the second time."""
        if self._alive:
            _core.delete_mesh()
            self._alive = False

    def __enter__(self) -> Mesh:
        self._require_alive()
        return self

    def __exit__(self, *error: object) -> None:
        self.delete()

    def __del__(self) -> None:
        try:
            self.delete()
        except Exception:  # in use, or the interpreter ends: the next mesh, or its end, sees to it
            pass

    def __repr__(self) -> str:
        if not self._alive:
            return "<velmar_2d.Mesh: deleted>"
        return f"<velmar_2d.Mesh: {len(self)} nodes, rectangle {self.rectangle}>"

    def _require_alive(self) -> None:
        if not self._alive:
            raise _core.MeshError("velmar_2d: this mesh has been deleted")

    # ---------------------------------------------------------------------------------------------
    # What it is
    # ---------------------------------------------------------------------------------------------

    def __len__(self) -> int:
        """Number of nodes."""
        self._require_alive()
        return _core.nb_nodes()

    @property
    def rectangle(self) -> tuple[float, float, float, float]:
        """(west, east, south, north), the north side as it may have been moved."""
        self._require_alive()
        west, east, south, north = _core.rectangle()
        return west, east, south, north

    @property
    def dist_0(self) -> float:
        """Spacing of the first grid."""
        self._require_alive()
        return _core.dist_0()

    @property
    def n_cell_data(self) -> int:
        """Data values of each node."""
        self._require_alive()
        return _core.n_cell_data()

    @property
    def revision(self) -> int:
        """Grows whenever a node comes or goes; never falls."""
        self._require_alive()
        return _core.revision()

    @property
    def subdiv_max(self) -> int:
        """The limit of subdivision. Lowering it removes the nodes above it, raising it none."""
        self._require_alive()
        return _core.subdiv_max()

    @subdiv_max.setter
    def subdiv_max(self, limit: int) -> None:
        self._require_alive()
        if operator.index(limit) < 0:
            raise ValueError(f"subdiv_max is {limit}; it must not be negative")
        try:
            _core.set_subdiv_max(limit)
        finally:
            self._data_version += 1

    @property
    def nodes(self) -> Nodes:
        """The nodes as numpy arrays; the same object until nodes come or go."""
        self._require_alive()
        if self._nodes is None or not self._nodes.is_current:
            self._nodes = Nodes(self, _core.revision())
        return self._nodes

    # ---------------------------------------------------------------------------------------------
    # Adapting
    # ---------------------------------------------------------------------------------------------

    def update(self, size: Callable[..., Any] | float, init_data: Callable[..., Any] | None = None,
               *, vectorised: bool = True, init_vectorised: bool | None = None) -> UpdateStatistics:
        """Adapts the mesh to a wanted spacing.

        size(x, y, data, grad, grad2) is asked at nodes for the spacing wanted there, with their
        data and the norms of the gradient and the Hessian of data[0], computed at the start of the
        update. Vectorised it gets arrays of shapes (n,), (n,), (n, k), (n,), (n,) with all nodes of
        one stretch of the node list, and returns shape (n,) or one number; otherwise it gets one
        node, with data of shape (k,), and returns one number. A number stands for itself.

        init_data(x, y) gives data[0] of new nodes; vectorised it takes and returns arrays. It is
        asked ahead for places where nodes are about to be inserted, and again for those that were
        not foreseen: it must depend on the place alone. Without it data[0] is interpolated.

        Both ways lead to the same mesh; the vectorised one is many times faster. An exception of a
        callable leaves the mesh whole, with part of the update done.
        """
        self._require_alive()
        if isinstance(size, numbers.Real):
            spacing = float(size)
            size = lambda *_: spacing  # noqa: E731
            vectorised = True
        for name, function in (("size", size), ("init_data", init_data)):
            if not callable(function) and not (function is None and name == "init_data"):
                raise TypeError(f"{name} must be callable, not {type(function).__name__}")
        try:
            _core.update(size, init_data, vectorised,
                         vectorised if init_vectorised is None else init_vectorised)
        finally:
            self._data_version += 1
        return self.statistics

    @property
    def statistics(self) -> UpdateStatistics:
        """What the last update did."""
        return UpdateStatistics(**_core.statistics())

    def gradient(self) -> NDArray[np.float64]:
        """(n, 2): the gradient of data[:, 0] at every node; nodes.grad and nodes.grad2 follow."""
        self._require_alive()
        try:
            return np.stack(_core.gradient(), axis=1)
        finally:
            self._data_version += 1

    # ---------------------------------------------------------------------------------------------
    # Looking and using
    # ---------------------------------------------------------------------------------------------

    def check(self) -> list[Finding]:
        """Checks every rule of a whole mesh; an empty list says that all hold."""
        self._require_alive()
        return [Finding(*found) for found in _core.findings()]

    def write_vtu(self, path: str | os.PathLike[str], *, cells: str = "triangles",
                  ascii: bool = False, data_names: Sequence[str] = ()) -> None:
        """Writes the mesh for ParaView: triangles between the nodes, or "control_cells".

        Raises OSError with the path and the reason where the file cannot be written.
        """
        self._require_alive()
        if cells not in ("triangles", "control_cells"):
            raise ValueError(f"cells is {cells!r}; it must be 'triangles' or 'control_cells'")
        if not _core.has_io:
            raise _core.MeshError("velmar_2d was built without pugixml: no .vtu files")
        _core.write_vtu(os.fspath(path), cells == "control_cells", ascii, list(data_names))

    def plot(self, what: str = "links", colour: Any = "level", *, ax: Any = None,
             colorbar: bool = True, cmap: Any = None, **style: Any) -> Any:
        """Draws the mesh with matplotlib and returns the Axes.

        what      "links" between nodes, control "cells", or a "field" that is linear on triangles
        colour    "level", "value" for data[:, 0], or an array with a number for each node;
                  links and cells also take a colour of matplotlib, such as "black"
        style     goes to the collection that is drawn (linewidths, vmin, vmax, alpha ...)
        """
        from .plotting import plot
        return plot(self, what, colour, ax=ax, colorbar=colorbar, cmap=cmap, **style)

    def to_scipy_laplacian(self, conductivity: Any = None, *, per_area: bool = True) -> Any:
        """The Laplacian of finite volumes on the control cells, as a scipy.sparse.csr_matrix.

        (L @ u)[i] is the flux through the faces of cell i, divided by its area unless per_area is
        False; without that division the matrix is symmetric. Nothing flows through the sides:
        nodes where values are prescribed (nodes.known) are for the caller to treat.

        conductivity    one number, or one for each node; faces take the harmonic mean
        """
        from .matrices import laplacian
        return laplacian(self.nodes, conductivity, per_area)


def _four_numbers(rectangle: Sequence[float]) -> tuple[float, float, float, float]:
    try:
        west, east, south, north = (float(side) for side in rectangle)
    except (TypeError, ValueError):
        raise ValueError(
            f"rectangle is {rectangle!r}; it must be (west, east, south, north)") from None
    return west, east, south, north


def _fitting_ny(west: float, east: float, south: float, north: float, nx: int) -> int:
    """The number of rows whose squares come nearest to the height."""
    if nx < 2 or not east > west or not north > south:
        return 2  # refused by the library, in its own words
    rows = (north - south) / (east - west) * (nx - 1)
    return max(2, round(rows) + 1) if math.isfinite(rows) else 2
