"""One mesh over many processes, by mpi4py.

    from mpi4py import MPI
    from velmar_2d.mpi import Partition

    part = Partition(MPI.COMM_WORLD, nx=65, subdiv_max=10)
    part.resolve(lambda x, y, data, grad, grad2: 0.003 + 0.1 * abs(y - x**2))
    part.data = part.positions[:part.owned, :1]          # one row for each node of this process
    print(part.comm.rank, part.owned, "of", part.size)

Methods marked collective are called by all processes. What one of them does wrong or cannot do raises
an error on all, which names the process.
"""
from __future__ import annotations

import contextlib
import operator
import os
from typing import TYPE_CHECKING, Any, Callable, Iterator, NamedTuple, Sequence

import numpy as np
from numpy.typing import ArrayLike, NDArray

from . import links
from ._core import MeshError
from .arguments import (TRANSFERS, callables, checked_limit, four_numbers, limit_of_nodes,
                        not_absurd, number_of_transfer)
from .mesh import Mesh
from .mpi_faults import Noting, told_by_first
from .progress import Progress, shown

try:
    from . import _mpi
except ModuleNotFoundError as missing:
    raise ImportError("velmar_2d.mpi is not in this package: it is built with "
                      "-DVELMAR_2D_BUILD_MPI=ON, which needs MPI") from missing

if TYPE_CHECKING:
    from typing_extensions import Self

__all__ = ["Partition", "PartitionStatistics"]


class PartitionStatistics(NamedTuple):
    """Over all processes: the mesh as it stands, and what the last update did."""

    nodes: int
    ghosts: int
    most_nodes_owned: int
    #: most_nodes_owned times the number of processes / nodes
    imbalance: float
    #: Of messages, until nothing was new.
    rounds: int
    #: Sent by all processes.
    bytes: int
    visited: int
    inserted: int
    removed: int
    refused: int
    #: Time of the processor that the slowest process took, without what it spent in messages.
    update_seconds: float
    #: What of it went into ghosts, their data, the plan of exchanges and the check.
    sharing_seconds: float
    #: Since the Partition was made: how often windows were too narrow.
    repairs: int
    #: As it is now.
    overlap: int


class Partition:
    """A mesh that the processes of a communicator keep together: each owns the nodes in a box.

    comm         of mpi4py; Partition makes a copy of it
    overlap      cells of the first grid that a process keeps beyond its box, at least 1; more for
                 update()
    repairs      where overlap turns out to be too small it is made twice as large, up to the whole,
                 and what needs it begins anew: functions are asked again then. False: MeshError is
                 raised instead
    The rest is as for Mesh.

    Nodes of a process are numbered from 0: owned ones, then ghosts, those linked to owned ones first.
    In the whole they have the numbers `numbers`, those of process 0 first; owned ones `first_number`
    to `first_number + owned - 1`. Arrays are made when they are asked for, and are good until
    update(), resolve() or rebalance(), which change all numbers.

    Arguments are the same on all processes, but for functions and arrays. Functions are asked about
    what concerns their process alone; how often differs, so they must not talk to other processes.
    Where one raises, MeshError is raised on all; there its cause is what the function raised. After
    that, what is collective is refused.
    """

    def __init__(self, comm: Any, rectangle: Sequence[float] = (0.0, 1.0, 0.0, 1.0), nx: int = 17,
                 ny: int | None = None, subdiv_max: int = 10, n_cell_data: int = 1,
                 bc_type: Any = None, *, vectorised: bool = True, overlap: int = 3,
                 repairs: bool = True) -> None:
        kinds = links.kinds_of_sides(bc_type), vectorised
        grid = (four_numbers(rectangle), operator.index(nx), 0 if ny is None else operator.index(ny),
                not_absurd("subdiv_max", subdiv_max), not_absurd("n_cell_data", n_cell_data))
        with Noting() as noted:
            self._take(comm, _mpi.Partition(comm.py2f(), *grid, *noted.kinds(kinds), overlap,
                                            repairs), kinds)

    @classmethod
    def from_mesh(cls, comm: Any, mesh: Mesh | None, bc_type: Any = None, *,
                  vectorised: bool = True, overlap: int = 3, repairs: bool = True) -> Self:
        """Shares out a mesh that process 0 has, with its data; what others give is ignored. Collective.

        bc_type     the kinds of the sides, as for Mesh(), on all processes. Without: those of the
                    mesh, where they are no function

        One that update() or single steps have changed last goes on with the order of its nodes, and
        takes the overlap that update() wants.
        """
        def kinds_of_mesh() -> Any:
            if not isinstance(mesh, Mesh):
                raise TypeError(f"process 0 must have a Mesh, not {type(mesh).__name__}")
            if bc_type is None and callable(mesh._kinds[0]):
                raise ValueError("the kinds of the mesh's sides are a function; "
                                 "from_mesh() needs it as bc_type on all processes")
            mesh._core.revision()  # raises where the mesh has been deleted
            return mesh._kinds[0] if bc_type is None else None

        own = told_by_first(comm, kinds_of_mesh)
        kinds = (links.kinds_of_sides(bc_type) if own is None else tuple(own)), vectorised
        part = cls.__new__(cls)
        with Noting() as noted:
            core = mesh._core if comm.rank == 0 and mesh is not None else None
            part._take(comm, _mpi.Partition(comm.py2f(), core, *noted.kinds(kinds), overlap,
                                            repairs), kinds)
        return part

    @classmethod
    def load(cls, comm: Any, path: str | os.PathLike[str], name: str = "mesh", *,
             step: int | None = None, time: float | None = None, bc_type: Any = None,
             vectorised: bool = True, overlap: int = 3, repairs: bool = True) -> Self:
        """Shares out a mesh that process 0 loads, as Mesh.load() does. Collective."""
        mesh: Mesh | None = None

        def load() -> None:
            nonlocal mesh
            mesh = Mesh.load(path, name, step=step, time=time, bc_type=bc_type,
                             vectorised=vectorised)

        told_by_first(comm, load)
        return cls.from_mesh(comm, mesh, bc_type, vectorised=vectorised, overlap=overlap,
                             repairs=repairs)

    def _take(self, comm: Any, core: Any, kinds: tuple[Any, bool]) -> None:
        self.comm = comm
        self._core, self._kinds = core, kinds
        self._kept: dict[str, Any] = {}
        self._version = -1

    def __len__(self) -> int:
        """Nodes of this process, ghosts not among them."""
        return self.owned

    def __repr__(self) -> str:
        return (f"<velmar_2d.mpi.Partition: {self.owned} of {self.size} nodes, "
                f"process {self.comm.rank} of {self.comm.size}>")

    # ---------------------------------------------------------------------------------------------
    # Changing the mesh
    # ---------------------------------------------------------------------------------------------

    def resolve(self, size: Callable[..., Any] | float, init_data: Callable[..., Any] | None = None,
                margin: float = 0.0, most_nodes: int | None = None, slope: float = 0.0, *,
                vectorised: bool = True, init_vectorised: bool | None = None,
                progress: bool | Progress = False) -> PartitionStatistics:
        """As Mesh.resolve() of the whole mesh. Collective.

        size         is asked for nodes of this process alone
        most_nodes   of one process, ghosts with them
        progress     is told of those of this process; True shows those of process 0
        """
        with self._agreed():
            limits = float(margin), limit_of_nodes(most_nodes), float(slope)
            size, init_data, *ways = callables(size, init_data, vectorised, init_vectorised)
        with Noting() as noted, self._shown(progress) as told:
            self._core.resolve(noted(size), noted(init_data), *limits, *ways, noted(told),
                               *noted.kinds(self._kinds))
        return self.statistics()

    def update(self, size: Callable[..., Any] | float, init_data: Callable[..., Any] | None = None,
               *, vectorised: bool = True, init_vectorised: bool | None = None,
               progress: bool | Progress = False) -> PartitionStatistics:
        """As Mesh.update() of the whole mesh. Collective.

        It needs more overlap than resolve(): 3 to 4 cells where sizes are a matter of place, 6 where
        they follow data, more where those change abruptly; where it was too little the update is
        made again with more. size is asked for all nodes around the box, too, and progress is told of
        them. Nodes that resolve()
        has left count as having come by place, as gather() hands them out: so after resolve() this
        makes what Mesh.update() makes of the mesh that gather() would give.
        """
        with self._agreed():
            size, init_data, *ways = callables(size, init_data, vectorised, init_vectorised)
        with Noting() as noted, self._shown(progress) as told:
            self._core.update(noted(size), noted(init_data), *ways, noted(told),
                              *noted.kinds(self._kinds))
        return self.statistics()

    def rebalance(self, threshold: float = 1.1) -> bool:
        """Cuts new boxes where a process owns more than threshold times its share. Collective.

        Returns whether it did. After update() it leaves all as it is where plain updates cannot make
        the nodes anew.
        """
        with Noting() as noted:
            return self._core.rebalance(threshold, *noted.kinds(self._kinds))

    @property
    def transfer(self) -> str:
        """What becomes of data values where nodes come and go: see Mesh.transfer. Without
        "conservative", which "remap" stands in for."""
        return TRANSFERS[self._core.transfer()]

    @transfer.setter
    def transfer(self, transfer: str) -> None:
        self._core.set_transfer(number_of_transfer(transfer))

    def statistics(self) -> PartitionStatistics:
        """Over all processes. Collective."""
        return PartitionStatistics(**self._core.statistics())

    # ---------------------------------------------------------------------------------------------
    # What it is
    # ---------------------------------------------------------------------------------------------

    @property
    def rectangle(self) -> tuple[float, float, float, float]:
        """(west, east, south, north) of the whole."""
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
    def subdiv_max(self) -> int:
        """The limit of subdivision. Lowering it removes the nodes above it, raising it none.
        Assigning is collective."""
        return self._core.subdiv_max()

    @subdiv_max.setter
    def subdiv_max(self, limit: int) -> None:
        with self._agreed():
            limit = checked_limit(limit)
        with Noting() as noted:
            self._core.set_limit(limit, *noted.kinds(self._kinds))

    @property
    def boxes(self) -> list[tuple[int, int, int, int]]:
        """Of all processes, by rank: (west, east, south, north) of the cells that a box reaches into."""
        return [tuple(box) for box in self._core.boxes()]

    # ---------------------------------------------------------------------------------------------
    # Nodes
    # ---------------------------------------------------------------------------------------------

    @property
    def owned(self) -> int:
        """Number of nodes of this process."""
        return self._core.nb_owned()

    @property
    def ghosts(self) -> int:
        """Number of nodes of others that this process knows."""
        return self._core.nb_ghosts()

    @property
    def linked_ghosts(self) -> int:
        """Number of those that are linked to owned nodes. They come first of the ghosts."""
        return self._core.nb_linked_ghosts()

    @property
    def size(self) -> int:
        """Number of nodes of the whole mesh."""
        return self._core.size()

    @property
    def first_number(self) -> int:
        return self._core.first_number()

    @property
    def positions(self) -> NDArray[np.float64]:
        """x and y of owned nodes, then of ghosts."""
        return self._array("positions")

    @property
    def numbers(self) -> NDArray[np.int64]:
        """In the whole mesh, of owned nodes, then of ghosts."""
        return self._array("numbers")

    @property
    def local_links(self) -> NDArray[np.int32]:
        """Eight for each owned node: the number of a node here, NO_LINK, or the code of a side."""
        return self._array("links")

    @property
    def links(self) -> NDArray[np.int64]:
        """The same with numbers in the whole mesh."""
        local = self.local_links
        return np.where(local >= 0, self.numbers[np.maximum(local, 0)], local)

    @property
    def weights(self) -> NDArray[np.float64]:
        """Eight for each owned node: length / distance of the faces, 0 where there is none."""
        return self._array("weights")

    @property
    def areas(self) -> NDArray[np.float64]:
        """Of the control cells of owned nodes."""
        return self._array("areas")

    @property
    def owners(self) -> NDArray[np.int32]:
        """Ranks, of owned nodes, then of ghosts."""
        return self._array("owners")

    @property
    def levels(self) -> NDArray[np.int32]:
        """Of owned nodes: level L stands for the spacing dist_0 / 2**(L / 2)."""
        return self._array("levels")

    @property
    def on_boundary(self) -> NDArray[np.int32]:
        """Of owned nodes: 0 inside, 1 on a side, 2 at a corner of the domain."""
        return self._array("on_boundary")

    @property
    def known(self) -> NDArray[np.bool_]:
        """Whether a Dirichlet condition prescribes the data of an owned node."""
        return self._array("known")

    @property
    def data(self) -> NDArray[np.float64]:
        """A row of values for each owned node. Assigning is collective: ghosts get theirs."""
        return self._core.data()

    @data.setter
    def data(self, values: ArrayLike) -> None:
        with self._agreed():
            rows = np.broadcast_to(np.asarray(values, dtype=np.float64),
                                   (self.owned, self.n_cell_data))
        self._core.write_data(rows, 0)

    def write_data(self, values: ArrayLike, column: int | None = None) -> None:
        """Writes the data of owned nodes into the mesh, and ghosts get theirs. Collective.

        values: shape (owned, k); or (owned,) for one column, which is `column` or the only one.
        """
        with self._agreed():
            k, rows = self.n_cell_data, np.asarray(values, dtype=np.float64)
            if column is None and rows.ndim == 1 and k == 1:
                column = 0
            if column is not None and not -k <= column < k:
                raise IndexError(f"there is no column {column}: the nodes have {k} data values")
            expected = (self.owned, k) if column is None else (self.owned,)
            if rows.shape != expected:
                raise ValueError(f"data of shape {rows.shape} were given; "
                                 f"{self.owned} nodes of {k} values need {expected}")
        self._core.write_data(rows.reshape(self.owned, -1) if k else rows,
                              0 if column is None else column % k)

    @property
    def grad(self) -> NDArray[np.float64]:
        """Of owned nodes: norm of the gradient of data[:, 0], as the last update or gradient() left it."""
        return self._core.grad()

    @property
    def grad2(self) -> NDArray[np.float64]:
        """Of owned nodes: norm of the Hessian of data[:, 0], as the last update or gradient() left it."""
        return self._core.grad2()

    def gradient(self) -> NDArray[np.float64]:
        """(owned, 2): the gradient of data[:, 0] at every owned node; grad and grad2 follow.

        Ghosts must hold the data of their owners.
        """
        return self._core.gradient()

    # ---------------------------------------------------------------------------------------------
    # Working together
    # ---------------------------------------------------------------------------------------------

    def exchange(self, values: NDArray[np.float64], layer: str = "all") -> None:
        """Gives rows of ghosts the values of their owners, in place. Collective.

        values   float64, one row for each owned node and each ghost, in C order
        layer    "all" ghosts, or those that are "linked" to owned nodes, which come first
        """
        with self._agreed():
            if not (isinstance(values, np.ndarray) and values.dtype == np.float64
                    and values.flags.c_contiguous and values.flags.writeable and values.ndim >= 1):
                raise TypeError("exchange() needs a writeable float64 array in C order")
            if len(values) != self.owned + self.ghosts:
                raise ValueError(f"exchange() needs {self.owned + self.ghosts} rows, "
                                 f"not {len(values)}")
            if layer not in ("all", "linked"):
                raise ValueError(f"layer is {layer!r}; it must be 'all' or 'linked'")
        self._core.exchange(values, values.size // len(values), layer == "linked")

    def agrees(self) -> bool:
        """Whether ghosts that are linked to owned nodes are what their owners have. Collective.

        Every update and rebalance() ends with this check, and raises MeshError where it fails.
        """
        return self._core.agrees()

    def gather(self) -> Mesh | None:
        """The whole mesh with its data on process 0, None elsewhere. For small cases. Collective."""
        with Noting() as noted:
            core = self._core.gather(*noted.kinds(self._kinds))
        if core is None:
            return None
        if callable(self._kinds[0]):
            core = core.copy(self._kinds[0])  # one that does not ask by way of this object
        return Mesh._twin(core, self._kinds, {})

    def save(self, path: str | os.PathLike[str], **options: Any) -> None:
        """Lets process 0 gather the mesh and write a file, as Mesh.save() does with its options.
        Collective."""
        mesh = self.gather()
        told_by_first(self.comm, lambda: mesh.save(path, **options) if mesh is not None else None)

    def to_scipy_laplacian(self, *, per_area: bool = True) -> Any:
        """Rows of owned nodes of the Laplacian of finite volumes, as Mesh.to_scipy_laplacian() has it.

        A scipy.sparse.csr_matrix with a column for each node of the whole mesh, by its number there.
        """
        from scipy import sparse
        flows = self.local_links >= 0
        weights = np.where(flows, self.weights, 0.0)
        flows &= weights > 0.0
        row = np.broadcast_to(np.arange(self.owned)[:, None], flows.shape)[flows]
        own = np.arange(self.owned)
        matrix = sparse.csr_matrix(
            (np.concatenate((weights[flows], -weights.sum(axis=1))),
             (np.concatenate((row, own)),
              np.concatenate((self.links[flows], own + self.first_number)))),
            shape=(self.owned, self.size))
        return sparse.diags(1.0 / self.areas) @ matrix if per_area else matrix

    def to_petsc(self, rows: Any) -> Any:
        """A petsc4py.PETSc.Mat of scipy's rows of owned nodes. Collective."""
        from petsc4py import PETSc
        rows = rows.tocsr()
        sizes = ((self.owned, self.size), (self.owned, self.size))
        index = PETSc.IntType
        return PETSc.Mat().createAIJ(sizes, comm=self.comm, csr=(
            rows.indptr.astype(index), rows.indices.astype(index), rows.data))

    def write_pvtu(self, path: str | os.PathLike[str], *, cells: str = "triangles",
                   ascii: bool = False, data_names: Sequence[str] = (),
                   time: float | None = None) -> None:
        """Writes the mesh for ParaView, one file for each process and one that names them. Collective.

        As Mesh.write_vtu(). The path ends in .pvtu and must mean the same file on all processes.
        """
        if cells not in ("triangles", "control_cells"):
            raise ValueError(f"cells is {cells!r}; it must be 'triangles' or 'control_cells'")
        if not _mpi.has_io:
            raise ImportError("this package was built without files for ParaView (needs pugixml)")
        error = self._core.write_pvtu(os.fspath(path), cells == "control_cells", ascii,
                                      list(data_names), time)
        if error:
            raise OSError(error)

    def _shown(self, progress: bool | Progress) -> contextlib.AbstractContextManager[Any]:
        return shown(progress if callable(progress) or self.comm.rank == 0 else False)

    @contextlib.contextmanager
    def _agreed(self) -> Iterator[None]:
        """Where arguments are checked: what is wrong on one process is raised on all."""
        fault: Exception | None = None
        try:
            yield
        except Exception as found:
            fault = found
        first = self._core.first_at_fault(fault is None)
        if fault is not None:
            raise fault
        if first < self.comm.size:
            raise MeshError(f"velmar_2d: ERROR on process {first} of {self.comm.size}: its arguments "
                            "were refused there")

    def _array(self, name: str) -> Any:
        """Kept until the mesh changes."""
        if self._version != self._core.version():
            self._kept.clear()
            self._version = self._core.version()
        if name not in self._kept:
            self._kept[name] = getattr(self._core, name)()
        return self._kept[name]
