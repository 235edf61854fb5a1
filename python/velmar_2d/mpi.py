"""One mesh over many processes, by mpi4py.

    from mpi4py import MPI
    from velmar_2d.mpi import Partition

    part = Partition(MPI.COMM_WORLD, nx=65, subdiv_max=10)
    part.resolve(lambda x, y, data, grad, grad2: 0.003 + 0.1 * abs(y - x**2))
    part.data = part.positions[:part.owned, :1]          # one row for each node of this process
    print(part.comm.rank, part.owned, "of", part.size)

All methods but those that read arrays are collective. What one process does wrong or cannot do raises
the same MeshError on all, which names the process.
"""
from __future__ import annotations

import os
from typing import Any, Callable, Sequence

import numpy as np
from numpy.typing import ArrayLike, NDArray

from . import links

try:
    from . import _mpi
except ModuleNotFoundError as missing:
    raise ImportError("velmar_2d.mpi is not in this package: it is built with "
                      "-DVELMAR_2D_BUILD_MPI=ON, which needs MPI") from missing

__all__ = ["Partition"]


class Partition:
    """A mesh that the processes of a communicator keep together: each owns the nodes in a box.

    comm         of mpi4py; Partition makes a copy of it
    overlap      cells of the first grid that a process keeps beyond its box, at least 3
    The rest is as for Mesh, but bc_type is no function.

    Nodes of a process are numbered from 0: owned ones, then ghosts. In the whole they have the
    numbers `numbers`, those of process 0 first; owned ones `first_number` to
    `first_number + owned - 1`. Arrays are made when they are asked for, and are good until resolve()
    or rebalance(), which change all numbers.
    """

    def __init__(self, comm: Any, rectangle: Sequence[float] = (0.0, 1.0, 0.0, 1.0), nx: int = 17,
                 ny: int | None = None, subdiv_max: int = 10, n_cell_data: int = 1,
                 bc_type: Any = None, *, overlap: int = 3) -> None:
        kinds = links.kinds_of_sides(bc_type)
        if callable(kinds):
            raise TypeError("bc_type of a Partition must be a kind, or a mapping from sides")
        self.comm = comm
        self._core = _mpi.Partition(comm.py2f(), list(rectangle), nx, ny or 0, subdiv_max,
                                    n_cell_data, kinds, overlap)
        self._n_cell_data = n_cell_data
        self._kept: dict[str, Any] = {}
        self._version = -1

    def __len__(self) -> int:
        """Nodes of this process, ghosts not among them."""
        return self.owned

    # ---------------------------------------------------------------------------------------------
    # Changing the mesh
    # ---------------------------------------------------------------------------------------------

    def resolve(self, size: Callable[..., Any] | float,
                init_data: Callable[[float, float], float] | None = None, *, margin: float = 0.0,
                most_nodes: int = 0, slope: float = 0.0) -> None:
        """As Mesh.resolve() of the whole mesh. Collective.

        size         takes arrays, for owned nodes of this process alone: x, y, data, gradient and
                     Hessian norms; how often it is called differs from process to process, so it
                     must not talk to others
        init_data    takes the coordinates of one place
        most_nodes   of one process, ghosts with them; 0: no limit
        slope        above 0, sizes are graded over the mesh, from process to process too
        """
        if not callable(size):
            spacing = float(size)
            size = lambda *_: spacing  # noqa: E731
        self._core.resolve(size, init_data, margin, most_nodes, slope)

    def rebalance(self, threshold: float = 1.1) -> bool:
        """Cuts new boxes where a process owns more than threshold times its share. Collective."""
        return self._core.rebalance(threshold)

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
    def levels(self) -> NDArray[np.int32]:
        return self._array("levels")

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
        shape = (self.owned, self._n_cell_data)
        self._core.set_data(np.broadcast_to(np.asarray(values, dtype=np.float64), shape))

    # ---------------------------------------------------------------------------------------------
    # Working together
    # ---------------------------------------------------------------------------------------------

    def exchange(self, values: NDArray[np.float64]) -> None:
        """Gives rows of ghosts the values of their owners, in place. Collective.

        values   float64, one row for each owned node and each ghost, in C order
        """
        if not (isinstance(values, np.ndarray) and values.dtype == np.float64
                and values.flags.c_contiguous and values.flags.writeable and values.ndim >= 1):
            raise TypeError("exchange() needs a writeable float64 array in C order")
        if len(values) != self.owned + self.ghosts:
            raise ValueError(f"exchange() needs {self.owned + self.ghosts} rows, not {len(values)}")
        self._core.exchange(values, values.size // max(len(values), 1))

    def statistics(self) -> dict[str, Any]:
        """Over all processes: nodes, ghosts, imbalance and what the last update did. Collective."""
        return self._core.statistics()

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
                   data_names: Sequence[str] = (), time: float | None = None) -> None:
        """Writes the mesh for ParaView, one file for each process and one that names them. Collective.

        As Mesh.write_vtu(). The path ends in .pvtu and must mean the same file on all processes.
        """
        if cells not in ("triangles", "control_cells"):
            raise ValueError(f"cells is {cells!r}; it must be 'triangles' or 'control_cells'")
        if not _mpi.has_io:
            raise ImportError("this package was built without files for ParaView (needs pugixml)")
        error = self._core.write_pvtu(os.fspath(path), cells == "control_cells", list(data_names),
                                      time)
        if error:
            raise OSError(error)

    def _array(self, name: str) -> Any:
        """Kept until the mesh changes."""
        if self._version != self._core.version():
            self._kept.clear()
            self._version = self._core.version()
        if name not in self._kept:
            self._kept[name] = getattr(self._core, name)()
        return self._kept[name]
