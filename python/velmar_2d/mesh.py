"""The mesh."""
from __future__ import annotations

import copy
import math
import operator
import os
from typing import TYPE_CHECKING, Any, Callable, Mapping, NamedTuple, Sequence

import numpy as np
from numpy.typing import ArrayLike, NDArray

from . import _core, links
from .arguments import (TRANSFERS, callables, checked_limit, four_numbers, hooks, limit_of_nodes,
                        not_absurd, number_of_transfer)
from .matrices import laplacian
from .nodes import Nodes
from .paraview import require_io
from .places import LineCut, as_places, one_value, pixels
from .plotting import plot
from .progress import Progress, shown
from .saving import own_arrays, readable, require_hdf5

if TYPE_CHECKING:
    from typing_extensions import Self

_MOST_NODES = 2**31 - 1  # which links as indices can tell apart


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


class Mesh:
    """An adaptive mesh of a rectangle. Any number of them live side by side.

    rectangle    (west, east, south, north)
    nx, ny       nodes of the first grid along x and y. Its cells are squares of the width
                 (east - west) / (nx - 1), and the height must be a whole number of them. Without ny,
                 or where it is 0, that number is taken from the height.
    subdiv_max   limit of subdivision, the highest level that a node may have
    n_cell_data  data values of each node, 0.0 at first
    bc_type      the kind of condition on the sides: DIRICHLET, NEUMANN or OTHER (or their names)
                 for all; a mapping from "north", "east", "south", "west"; or a callable
                 bc_type(x, y, side) with the side as "North" and so on, kept for later updates.
                 Without: DIRICHLET
    vectorised   whether a callable bc_type takes arrays of places and returns an array of kinds,
                 or takes one place and returns one

    Raises MeshError where the library refuses: a height that does not fit, more nodes than the
    machine's memory holds.
    It goes when nothing holds it, at the end of a `with` block, or at delete(). Copies, pickles and
    files of it hold the same mesh to the last bit. One thread at a time may use a mesh; updates of
    different meshes run side by side.
    """

    def __init__(self, rectangle: Sequence[float] = (0.0, 1.0, 0.0, 1.0), nx: int = 17,
                 ny: int | None = None, subdiv_max: int = 10, n_cell_data: int = 1,
                 bc_type: Any = None, *, vectorised: bool = True) -> None:
        sides = four_numbers(rectangle)
        nx, ny = operator.index(nx), 0 if ny is None else operator.index(ny)
        subdiv_max = not_absurd("subdiv_max", subdiv_max)
        n_cell_data = not_absurd("n_cell_data", n_cell_data)
        if n_cell_data < 0:
            raise ValueError(f"n_cell_data is {n_cell_data}; it must not be negative")
        self._kinds = links.kinds_of_sides(bc_type), vectorised
        _require_room(sides, nx, ny, n_cell_data)
        self._core = _core.make_mesh(sides, nx, ny, subdiv_max, n_cell_data, *self._kinds)
        self._nodes: Nodes | None = None

    # ---------------------------------------------------------------------------------------------
    # Life
    # ---------------------------------------------------------------------------------------------

    @property
    def is_alive(self) -> bool:
        """Whether the mesh has not been deleted."""
        return self._core.is_alive()

    def delete(self) -> None:
        """Deletes the mesh. Arrays that were taken from it stay. Does nothing the second time."""
        self._core.delete()
        self._kinds = links.kinds_of_sides(None), False

    def __enter__(self) -> Mesh:
        self._core.revision()  # raises where the mesh has been deleted
        return self

    def __exit__(self, *error: object) -> None:
        self.delete()

    def __copy__(self) -> Self:
        return self._twin(self._core.copy(self._kinds[0]), self._kinds, self._extras())

    def __deepcopy__(self, memo: dict[int, Any]) -> Self:
        twin = self._twin(self._core.copy(self._kinds[0]), self._kinds, {})
        memo[id(self)] = twin
        twin.__dict__.update(copy.deepcopy(self._extras(), memo))
        return twin

    def __reduce_ex__(self, protocol: Any) -> tuple[Any, ...]:
        require_hdf5()
        return _unpickled, (type(self), self._core.to_bytes(), self._kinds), self._extras()

    def _extras(self) -> dict[str, Any]:
        """What a user has added to the mesh."""
        own = ("_core", "_kinds", "_nodes")
        return {name: value for name, value in self.__dict__.items() if name not in own}

    @classmethod
    def _twin(cls, core: _core.Mesh, kinds: tuple[Any, bool], extras: dict[str, Any]) -> Self:
        twin = cls.__new__(cls)
        twin._core, twin._kinds, twin._nodes = core, kinds, None
        twin.__dict__.update(extras)
        return twin

    def __repr__(self) -> str:
        if not self.is_alive:
            return "<velmar_2d.Mesh: deleted>"
        return f"<velmar_2d.Mesh: {len(self)} nodes, rectangle {self.rectangle}>"

    # ---------------------------------------------------------------------------------------------
    # What it is
    # ---------------------------------------------------------------------------------------------

    def __len__(self) -> int:
        """Number of nodes."""
        return self._core.nb_nodes()

    @property
    def rectangle(self) -> tuple[float, float, float, float]:
        """(west, east, south, north); its height is a whole number of squares to the last bit."""
        west, east, south, north = self._core.rectangle()
        return west, east, south, north

    @property
    def dist_0(self) -> float:
        """Spacing of the first grid."""
        return self._core.dist_0()

    @property
    def n_cell_data(self) -> int:
        """Data values of each node."""
        return self._core.n_cell_data()

    @property
    def revision(self) -> int:
        """Grows whenever a node comes or goes; never falls."""
        return self._core.revision()

    @property
    def subdiv_max(self) -> int:
        """The limit of subdivision. Lowering it removes the nodes above it, raising it none."""
        return self._core.subdiv_max()

    @subdiv_max.setter
    def subdiv_max(self, limit: int) -> None:
        self._core.set_subdiv_max(checked_limit(limit), *self._kinds)

    @property
    def nodes(self) -> Nodes:
        """The nodes as numpy arrays; the same object until nodes come or go."""
        if self._nodes is None or not self._nodes.is_current:
            self._nodes = Nodes(self._core)
        return self._nodes

    # ---------------------------------------------------------------------------------------------
    # Adapting
    # ---------------------------------------------------------------------------------------------

    @property
    def transfer(self) -> str:
        """What becomes of data values where nodes come and go.

        "first"         data[:, 0] of new nodes is the mean of their parents, the others are 0.0
        "all"           every value is such a mean
        "conservative"  the sum of area times value stays what it is, for every value
        "remap"         that sum stays, too: cells that are new or have changed hold the mean of
                        what lay under them before; the same over many processes
        """
        return TRANSFERS[self._core.transfer()]

    @transfer.setter
    def transfer(self, transfer: str) -> None:
        self._core.set_transfer(number_of_transfer(transfer))

    def update(self, size: Callable[..., Any] | float, init_data: Callable[..., Any] | None = None,
               *, vectorised: bool = True, init_vectorised: bool | None = None,
               inserted: Callable[..., Any] | None = None,
               removing: Callable[..., Any] | None = None,
               progress: bool | Progress = False) -> UpdateStatistics:
        """Adapts the mesh to a wanted spacing.

        size(x, y, data, grad, grad2) is asked at nodes for the spacing wanted there, with their
        data and the norms of the gradient and the Hessian of data[0], computed at the start of the
        update. Vectorised it gets arrays of shapes (n,), (n,), (n, k), (n,), (n,) with all nodes of
        one stretch of the node list, and returns shape (n,) or one number; otherwise it gets one
        node, with data of shape (k,), and returns one number. A number stands for itself.

        init_data(x, y) gives data[0] of new nodes; vectorised it takes and returns arrays. It is
        asked ahead for places where nodes are about to be inserted, and again for those that were
        not foreseen: it must depend on the place alone. Without it data[0] is interpolated.

        inserted(x, y, data, parents) is told of nodes that have come, many at once: data of shape
        (n, k) is theirs and may be written; parents of shape (n, 4, k) holds the values of the
        nodes around, NaN where there are fewer. removing(x, y, data, around, rows) is told of nodes
        that go: data is theirs, around of shape (m, k) holds the values of the nodes that stay
        beside them and may be written, rows of shape (n, 8) tells which of those they are, -1 where
        there are fewer. Neither must use the mesh.

        progress shows how far the update is, with tqdm where that is installed, or is called as
        progress(phase, nodes_done, nodes_known), ten times a second at most. Ctrl-C and what it
        raises leave the update.

        Both ways lead to the same mesh; the vectorised one is many times faster. An exception of a
        callable leaves the mesh whole, with part of the update done.
        """
        with shown(progress) as told:
            self._core.update(*callables(size, init_data, vectorised, init_vectorised),
                              hooks(inserted, removing), told, *self._kinds)
        return self.statistics

    def resolve(self, size: Callable[..., Any] | float, init_data: Callable[..., Any] | None = None,
                margin: float = 0.0, most_nodes: int | None = None, slope: float = 0.0, *,
                vectorised: bool = True, init_vectorised: bool | None = None,
                inserted: Callable[..., Any] | None = None,
                removing: Callable[..., Any] | None = None,
                progress: bool | Progress = False) -> UpdateStatistics:
        """Adapts the mesh until no node is coarser than wanted, with as few nodes as that takes.

        The functions are those of update(), and so is what they get; but size is asked once
        for all nodes together, and once for each generation of new nodes. A second call with the
        same sizes changes nothing, not even the revision. What is finer than the limit of
        subdivision allows is not reached, and what lies between nodes and shows at none of them is
        missed.

        margin      levels by which a want must have fallen before nodes go, for sizes that follow
                    data: 0.5 to 1.5 where they come from the gradient or the Hessian
        most_nodes  raises MeshError where more nodes would be needed; the mesh is whole, with at
                    most that many. Without: as many as there is memory for
        slope       above 0, sizes are graded over the mesh: they grow by `slope` times the way at
                    most. For features so thin that nodes of a coarse mesh do not see them from one
                    to the next. init_data is then asked one by one for what grading adds
        """
        size, init_data, *ways = callables(size, init_data, vectorised, init_vectorised)
        with shown(progress) as told:
            self._core.resolve(size, init_data, float(margin), limit_of_nodes(most_nodes),
                               float(slope), *ways, hooks(inserted, removing), told, *self._kinds)
        return self.statistics

    @property
    def statistics(self) -> UpdateStatistics:
        """What the last update did."""
        return UpdateStatistics(**self._core.statistics())

    def gradient(self) -> NDArray[np.float64]:
        """(n, 2): the gradient of data[:, 0] at every node; nodes.grad and nodes.grad2 follow."""
        return np.stack(self._core.gradient(), axis=1)

    # ---------------------------------------------------------------------------------------------
    # Values anywhere
    # ---------------------------------------------------------------------------------------------

    def locate(self, x: ArrayLike, y: ArrayLike) -> Any:
        """Indices of the nodes whose control cells hold places; -1 outside the rectangle.

        That is the nearest node; on a border the one farthest to the east, and of those the one
        farthest to the north. The result has the shape of x and y. Places in any order; quickest
        where each lies near the one before.
        """
        places, shape = as_places(x, y)
        return self._core.locate(places).reshape(shape)[()]

    def value_at(self, x: ArrayLike, y: ArrayLike, how: str = "linear",
                 value: int | None = 0) -> Any:
        """Data at places, in the shape of x and y; not-a-number outside the rectangle.

        how    "constant" in each control cell; "linear" on the triangles between the nodes;
               "gradient": with a gradient at each node, from least squares over its links
        value  which of the data; None: all, along one axis more
        """
        places, shape = as_places(x, y)
        return one_value(self._core.values_at(places, how), value, shape)

    def sample(self, nx: int, ny: int | None = None, how: str = "linear",
               value: int | None = 0) -> NDArray[np.float64]:
        """Data as an image of ny rows and nx columns, at the centres of its pixels.

        The first row is the southernmost: pyplot.imshow(image, origin="lower",
        extent=mesh.rectangle). Without ny the pixels are squares, as nearly as they can be.
        """
        x, y = pixels(self.rectangle, operator.index(nx), None if ny is None else operator.index(ny))
        image: NDArray[np.float64] = self.value_at(x, y[:, np.newaxis], how, value)
        return image

    def line_cut(self, start: ArrayLike, end: ArrayLike) -> LineCut:
        """The pieces into which the control cells cut the line from start to end, (x, y) each.

        What lies outside the rectangle is left out.
        """
        ends = np.stack([np.asarray(start, dtype=np.float64), np.asarray(end, dtype=np.float64)])
        indices, rows = self._core.line_cut(ends)
        return LineCut(indices, rows[:, 0], rows[:, 1], rows[:, 2:4], rows[:, 4:6],
                       self.nodes.data[indices])

    def transfer_from(self, other: Mesh, conservative: bool = False, how: str = "linear") -> int:
        """Gives the nodes the data of another mesh, and returns how many nodes got any.

        Plain: what other.value_at() gives at each node. Conservative: the mean over each control
        cell, so that the sum of area times value over what both rectangles share is the same.
        Nodes beyond the rectangle of the other mesh keep their data, and so do columns that only
        one of the two has; the mean of a cell that reaches beyond is that of the part inside.
        """
        return self._core.transfer_from(other._core, conservative, how)

    # ---------------------------------------------------------------------------------------------
    # Saving
    # ---------------------------------------------------------------------------------------------

    def save(self, path: str | os.PathLike[str], arrays: Mapping[str, ArrayLike] | None = None, *,
             name: str = "mesh", time: float | None = None, length_unit: str = "",
             data_names: Sequence[str] = (), data_units: Sequence[str] = ()) -> None:
        """Writes an HDF5 file with this mesh; load() gives the same mesh to the last bit.

        arrays      numbers of your own to be kept with it, by name, of one or two dimensions and of
                    types that float64 holds; velmar_2d.load_arrays() gives them back
        name        of the mesh in the file
        The rest is for those who read the file.

        The file is complete or the old one is still there, whenever the process ends. Raises
        MeshError with the path and the reason.
        """
        require_hdf5()
        self._core.save(os.fspath(path), False, name, time, own_arrays(arrays), length_unit,
                        list(data_names), list(data_units))

    def save_step(self, path: str | os.PathLike[str], time: float,
                  arrays: Mapping[str, ArrayLike] | None = None, *, name: str = "mesh",
                  length_unit: str = "", data_names: Sequence[str] = (),
                  data_units: Sequence[str] = ()) -> int:
        """Adds the mesh to the series of a file, which is made where it is not there.

        Times must rise. Returns the number of the step, from 0 on. The file is copied on the way.
        """
        require_hdf5()
        return self._core.save(os.fspath(path), True, name, time, own_arrays(arrays), length_unit,
                               list(data_names), list(data_units))

    @classmethod
    def load(cls, path: str | os.PathLike[str], name: str = "mesh", *, step: int | None = None,
             time: float | None = None, bc_type: Any = None, vectorised: bool = True,
             check: bool = True) -> Self:
        """The mesh of a file of save() or save_step().

        step, time  of a series the step with this number, or the last one not after this time;
                    without either the last one
        bc_type     the kinds of the sides for nodes to come, as for Mesh(). Without: those of the
                    saved nodes, one for each side; MeshError where they differ
        check       False loads a mesh that did not keep all rules when it was saved

        Raises MeshError where the file is damaged or holds no such mesh.
        """
        kinds = None if bc_type is None else links.kinds_of_sides(bc_type)
        core = _core.load(readable(path), name, step, time, kinds, check)
        return cls._twin(core, (tuple(core.kinds_of_sides()) if kinds is None else kinds,
                                vectorised), {})

    # ---------------------------------------------------------------------------------------------
    # Looking and using
    # ---------------------------------------------------------------------------------------------

    def check(self) -> list[Finding]:
        """Checks every rule of a whole mesh; an empty list says that all hold."""
        return [Finding(*found) for found in self._core.findings()]

    def write_vtu(self, path: str | os.PathLike[str], *, cells: str = "triangles",
                  ascii: bool = False, data_names: Sequence[str] = (),
                  time: float | None = None) -> None:
        """Writes the mesh for ParaView: triangles between the nodes, or "control_cells".

        time is that of the solution, which ParaView shows; see write_pvd() for a series.
        Raises OSError with the path and the reason where the file cannot be written.
        """
        if cells not in ("triangles", "control_cells"):
            raise ValueError(f"cells is {cells!r}; it must be 'triangles' or 'control_cells'")
        require_io()
        self._core.write_vtu(os.fspath(path), cells == "control_cells", ascii, list(data_names),
                             time)

    def plot(self, what: str = "links", colour: Any = "level", *, ax: Any = None,
             component: int = 0, colorbar: bool = True, ticks: Sequence[float] | None = None,
             cmap: Any = None, **style: Any) -> Any:
        """Draws the mesh with matplotlib and returns the Axes.

        what       "links" between nodes, control "cells", or a "field" that is linear on triangles
        colour     "level", "value" for data[:, component], or an array with a number for each node;
                   links and cells also take a colour of matplotlib, such as "black"
        ax         the Axes to draw on; without, those of a new figure
        component  which data value "value" is
        colorbar   whether a colour bar tells the numbers. Axes have one at most: drawn on again, as
                   in an animation, they show what was drawn last in the same bar
        ticks      where the colour bar has ticks; without, matplotlib chooses, whole ones for levels
        cmap       palette of matplotlib, such as "magma"
        style      goes to the collection that is drawn (linewidths, vmin, vmax, alpha ...)
        """
        return plot(self.nodes, self.rectangle, what, colour, ax=ax, component=component,
                    colorbar=colorbar, ticks=ticks, cmap=cmap, **style)

    def to_scipy_laplacian(self, conductivity: Any = None, *, per_area: bool = True) -> Any:
        """The Laplacian of finite volumes on the control cells, as a scipy.sparse.csr_matrix.

        (L @ u)[i] is the flux through the faces of cell i, divided by its area unless per_area is
        False; without that division the matrix is symmetric. Nothing flows through the sides:
        nodes where values are prescribed (nodes.known) are for the caller to treat.

        conductivity    one number, or one for each node; faces take the harmonic mean
        """
        return laplacian(self.nodes, conductivity, per_area)


def save_meshes(path: str | os.PathLike[str], meshes: Mapping[str, Mesh]) -> None:
    """Writes several meshes to one file, by name. Raises MeshError with the path and the reason."""
    require_hdf5()
    _core.save_several(os.fspath(path), list(meshes), [mesh._core for mesh in meshes.values()])


def _unpickled(cls: type[Mesh], file: bytes, kinds: tuple[Any, bool]) -> Mesh:
    return cls._twin(_core.from_bytes(file, kinds[0]), kinds, {})


def _require_room(sides: tuple[float, float, float, float], nx: int, ny: int,
                  n_cell_data: int) -> None:
    """Raises MeshError where a grid has more nodes than can be numbered or held in memory."""
    west, east, south, north = sides
    if ny == 0 and 2 <= nx <= _MOST_NODES and east > west and north > south:
        rows = (north - south) / (east - west) * (nx - 1)
        ny = round(min(rows, _MOST_NODES)) + 1 if math.isfinite(rows) else 0
    nodes = max(nx, 1) * max(ny, 1)
    if nodes > _MOST_NODES:
        raise _core.MeshError(f"velmar_2d: {nx} x {ny} nodes are too many: at most {_MOST_NODES} "
                              "can be numbered")
    bytes_of_node = _core.bytes_of_node + (8 * n_cell_data if n_cell_data > 1 else 0)
    memory = _memory_of_machine()
    if memory is not None and nodes * bytes_of_node > memory:
        raise _core.MeshError(f"velmar_2d: {nx} x {ny} nodes of {bytes_of_node} bytes are more than "
                              f"the memory of this machine holds, {memory} bytes")


def _memory_of_machine() -> int | None:
    try:
        return os.sysconf("SC_PHYS_PAGES") * os.sysconf("SC_PAGE_SIZE")
    except (AttributeError, ValueError, OSError):
        return None  # a system that does not tell
