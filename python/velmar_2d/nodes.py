"""The nodes of one revision of the mesh, as numpy arrays."""
from __future__ import annotations

from typing import Any, Callable, NamedTuple

import numpy as np
from numpy.typing import ArrayLike, NDArray

from . import _core

Floats = NDArray[np.float64]
Ints = NDArray[np.int32]


class Faces(NamedTuple):
    """The faces between control cells, and the pieces of the sides that bound them.

    Face k lies between the cells of the nodes a[k] and b[k], with a < b, and comes once. Where
    b[k] is negative it is a piece of a side, and the code of its record (see velmar_2d.side_of).
    """

    a: Ints
    b: Ints
    length: Floats
    #: Between the two nodes; 0 on sides.
    distance: Floats

    @property
    def inner(self) -> NDArray[np.bool_]:
        """Which faces lie between two nodes."""
        return self.b >= 0


class Polygons(NamedTuple):
    """The control cells: cell i has the corners vertices[offsets[i]:offsets[i + 1]],
    anticlockwise."""

    offsets: NDArray[np.int64]
    vertices: Floats

    def __getitem__(self, i: Any) -> Any:
        if isinstance(i, (int, np.integer)):
            n = len(self.offsets) - 1
            if not -n <= i < n:
                raise IndexError(f"there is no cell {i}: there are {n}")
            i = int(i) % n
            return self.vertices[self.offsets[i]:self.offsets[i + 1]]
        raise TypeError("cells are numbered")

    def __iter__(self) -> Any:
        return iter((self.offsets, self.vertices))


class Nodes:
    """The nodes of the mesh at one revision, in the order of the node list.

    Each field is made when it is first read, and kept. The arrays are read-only and stay what they
    are when the mesh moves on; then `is_current` is False, fields that were not
    read before raise MeshError, and so does writing data. Get the new ones from `mesh.nodes`.
    They keep what they are copied from alive until it is deleted, though not the Mesh.
    """

    def __init__(self, core: _core.Mesh) -> None:
        self._core = core
        self._revision = core.revision()
        self._count = core.nb_nodes()
        self._fields: dict[str, Any] = {}
        self._values: dict[str, Any] = {}
        self._values_version = -1

    @property
    def revision(self) -> int:
        """The revision of the mesh that these nodes belong to."""
        return self._revision

    @property
    def is_current(self) -> bool:
        """Whether the mesh still has just these nodes."""
        return self._core.is_alive() and self._core.revision() == self._revision

    def __len__(self) -> int:
        return self._count

    def __repr__(self) -> str:
        state = "current" if self.is_current else "stale"
        return f"<velmar_2d.Nodes: {self._count} nodes, revision {self._revision}, {state}>"

    # ---------------------------------------------------------------------------------------------
    # Where they are
    # ---------------------------------------------------------------------------------------------

    @property
    def positions(self) -> Floats:
        """(n, 2): x and y."""
        return self._field("positions", self._core.positions)

    @property
    def x(self) -> Floats:
        """(n,): x, a view of `positions`."""
        return self.positions[:, 0]

    @property
    def y(self) -> Floats:
        """(n,): y, a view of `positions`."""
        return self.positions[:, 1]

    @property
    def ids(self) -> NDArray[np.int64]:
        """(n,): unique among all nodes that the mesh has had, ascending in the order of creation."""
        return self._field("ids", self._core.ids)

    @property
    def levels(self) -> Ints:
        """(n,): level L stands for the spacing dist_0 / 2**(L / 2)."""
        return self._field("levels", self._core.levels)

    @property
    def ipos(self) -> Ints:
        """(n,): the level at which a node at this position is first created."""
        return self._field("ipos", self._core.ipos)

    @property
    def on_boundary(self) -> Ints:
        """(n,): 0 inside, 1 on a side, 2 at a corner of the domain."""
        return self._field("on_boundary", self._core.on_boundary)

    @property
    def known(self) -> NDArray[np.bool_]:
        """(n,): whether a Dirichlet condition prescribes the data of the node."""
        return self._field("known", self._core.known)

    # ---------------------------------------------------------------------------------------------
    # How they are linked
    # ---------------------------------------------------------------------------------------------

    @property
    def links(self) -> Ints:
        """(n, 8): index of the node linked to the n, ne, e, se, s, sw, w and nw, or a negative code
        for a side or for nothing (see velmar_2d.side_of and NO_LINK)."""
        return self._field("links", self._core.links)

    @property
    def triangles(self) -> Ints:
        """(m, 3): indices of the corners, anticlockwise; the triangles fill the domain."""
        return self._field("triangles", self._core.triangles)

    # ---------------------------------------------------------------------------------------------
    # Control cells
    # ---------------------------------------------------------------------------------------------

    @property
    def areas(self) -> Floats:
        """(n,): areas of the control cells; they sum to that of the domain."""
        return self._field("areas", self._core.areas)

    @property
    def faces(self) -> Faces:
        """The faces between the control cells."""
        return self._field("faces", lambda: Faces(*map(_locked, self._core.faces())))

    @property
    def polygons(self) -> Polygons:
        """The control cells as polygons."""
        return self._field("polygons", lambda: Polygons(*map(_locked, self._core.polygons())))

    # ---------------------------------------------------------------------------------------------
    # What they hold
    # ---------------------------------------------------------------------------------------------

    @property
    def data(self) -> Floats:
        """(n, k): the data values as they are now; after write_data() this is another array."""
        return self._value("data", self._core.data)

    @property
    def grad(self) -> Floats:
        """(n,): norm of the gradient of data[:, 0], as the last update or gradient() left it."""
        return self._value("grad", self._core.grad)

    @property
    def grad2(self) -> Floats:
        """(n,): norm of the Hessian of data[:, 0], as the last update or gradient() left it."""
        return self._value("grad2", self._core.grad2)

    def write_data(self, values: ArrayLike, column: int | None = None) -> None:
        """Writes the data of all nodes into the mesh.

        values: shape (n, k); or (n,) for one column, which is `column` or the only one there is.
        Raises MeshError, and writes nothing, where the mesh has other nodes by now.
        """
        k = self._core.n_cell_data()
        array = np.asarray(values, dtype=np.float64, order="F")
        if column is None and array.ndim == 1 and k == 1:
            column = 0
        if column is not None:
            if not -k <= column < k:
                raise IndexError(f"there is no column {column}: the nodes have {k} data values")
            expected: tuple[int, ...] = (len(self),)
        else:
            expected = (len(self), k)
        if array.shape != expected:
            raise ValueError(f"data of shape {array.shape} were given; "
                             f"{len(self)} nodes of {k} values need {expected}")
        first = 0 if column is None else column % k
        self._core.write_data(array.reshape(len(self), -1) if k else array, first, self._revision)

    # ---------------------------------------------------------------------------------------------

    def _field(self, name: str, read: Callable[[], Any]) -> Any:
        """A field that stays the same while the revision does."""
        if name not in self._fields:
            self._require_current(name)
            self._fields[name] = _locked(read())
        return self._fields[name]

    def _value(self, name: str, read: Callable[[], Any]) -> Any:
        """A field that is written in between."""
        if self.is_current and self._values_version != self._core.data_version():
            self._values = {}
            self._values_version = self._core.data_version()
        if name not in self._values:
            self._require_current(name)
            self._values[name] = _locked(read())
        return self._values[name]

    def _require_current(self, name: str) -> None:
        revision = self._core.revision()
        if revision != self._revision:
            raise _core.MeshError(
                f"velmar_2d: {name} of revision {self._revision} cannot be read any more: the mesh "
                f"is at revision {revision}; use mesh.nodes")


def _locked(array: Any) -> Any:
    if isinstance(array, np.ndarray):
        array.flags.writeable = False
    return array
