"""One mesh over several processes in Python: run by mpirun.

    check_python.py FOLDER

Nodes, links, matrix and solutions are held against those of a Mesh, which knows nothing of processes.
"""
import os
import sys

import numpy as np
from mpi4py import MPI
from petsc4py import PETSc
from scipy import sparse
from scipy.sparse.linalg import spsolve

import velmar_2d
from velmar_2d.mpi import Partition

comm = MPI.COMM_WORLD
OPTIONS = {"rectangle": (0.0, 1.5, 0.0, 1.0), "nx": 13, "subdiv_max": 7, "n_cell_data": 2,
           "bc_type": {"west": velmar_2d.DIRICHLET, "east": velmar_2d.DIRICHLET,
                       "north": velmar_2d.NEUMANN, "south": velmar_2d.NEUMANN}}


def size(x, y, data, grad, grad2):
    assert x.shape == y.shape == grad.shape == grad2.shape and data.shape == (len(x), 2)
    return 0.01 + 0.2 * np.abs(np.hypot(x - 0.4, y - 0.4) - 0.3)


def places(positions):
    return {tuple(place): i for i, place in enumerate(positions)}


part = Partition(comm, **OPTIONS)
mesh = velmar_2d.Mesh(**OPTIONS)
for of_both in part, mesh:
    of_both.resolve(size, lambda x, y: np.sin(9.0 * x) * y, slope=0.1)
assert part.rebalance(1.05) or comm.size == 1
assert part.statistics().imbalance < 1.5 and part.statistics().nodes == len(mesh)

# Together the processes own each node of the mesh once, with its links and values.
index_of = places(mesh.nodes.positions)
n, g = part.owned, part.ghosts
mine = np.array([index_of[tuple(place)] for place in part.positions])
all_mine = np.concatenate(comm.allgather(mine[:n]))
assert sorted(all_mine) == list(range(len(mesh))) and part.size == len(mesh)
assert np.array_equal(all_mine[part.numbers], mine), "numbers are those of all owned nodes in order"
links = np.where(part.links >= 0, all_mine[np.maximum(part.links, 0)], part.links)
assert np.array_equal(links, mesh.nodes.links[mine[:n]])
assert np.array_equal(part.areas, mesh.nodes.areas[mine[:n]])
assert np.array_equal(part.levels, mesh.nodes.levels[mine[:n]])
assert np.array_equal(part.known, mesh.nodes.known[mine[:n]])
assert np.array_equal(part.data, mesh.nodes.data[mine[:n]])

# Ghosts get what their owners have.
rows = np.zeros((n + g, 2))
rows[:n] = part.positions[:n]
part.exchange(rows)
assert np.array_equal(rows, part.positions)
for wrong, error in ((rows[1:], ValueError), (rows.astype(np.float32), TypeError), (rows.T, TypeError)):
    try:
        part.exchange(wrong)
    except error:
        continue
    raise AssertionError("exchange() took what it cannot fill")

# The matrix by rows, and a system that PETSc solves: -div grad u = 1.
whole = mesh.to_scipy_laplacian(per_area=False)
own_rows = part.to_scipy_laplacian(per_area=False)
gathered = sparse.vstack(comm.allgather(own_rows)).tocsr()
order = np.argsort(all_mine)
assert abs(gathered[order][:, order] - whole).max() < 1e-15

is_free = ~part.known
own = sparse.csr_matrix((np.where(is_free, 0.0, 1.0), (np.arange(n), np.arange(n) + part.first_number)),
                        shape=own_rows.shape)
matrix = part.to_petsc(own - sparse.diags(is_free.astype(float)) @ own_rows)
right, solution = matrix.createVecs()
right.setArray(np.where(is_free, part.areas, 0.0))
solver = PETSc.KSP().create(comm)
solver.setOperators(matrix)
solver.setType("bcgs")
solver.setTolerances(rtol=1e-13, max_it=2000)
solver.solve(right, solution)
free = ~mesh.nodes.known
expected = np.zeros(len(mesh))
expected[free] = spsolve(-whole[free][:, free].tocsc(), mesh.nodes.areas[free])
assert solver.converged and np.abs(solution.getArray() - expected[mine[:n]]).max() < 1e-10

# A fault of one process is raised on all, and names it.
part.data = np.stack((solution.getArray(), part.areas), axis=1)
part.write_pvtu(os.path.join(sys.argv[1], f"python_{comm.size}", "mesh.pvtu"), data_names=["u"])


def fails_on_last(x, y, *_):
    if comm.rank == comm.size - 1:
        raise ZeroDivisionError("nothing is left")
    return np.full(len(x), 0.1)


try:
    part.resolve(fails_on_last)
    raise AssertionError("the fault was lost")
except velmar_2d.MeshError as error:
    assert f"on process {comm.size - 1} of {comm.size}" in str(error), error
    assert "nothing is left" in str(error), error
