"""How one mesh over several processes changes, in Python: run by mpirun.

    check_python_updates.py FOLDER

Nodes and values are held against those of a Mesh, which knows nothing of processes.
"""
import os
import sys
import time

import numpy as np
from mpi4py import MPI

import velmar_2d
from velmar_2d import DIRICHLET, NEUMANN, OTHER
from velmar_2d.mpi import Partition

comm = MPI.COMM_WORLD
LAST = comm.size - 1
OPTIONS = {"rectangle": (0.0, 2.0, 0.0, 1.1), "nx": 21, "subdiv_max": 7, "n_cell_data": 2}


def kinds(x, y, side):
    """Kinds that change along the sides."""
    assert np.all({"North": y == 1.1, "East": x == 2.0, "South": y == 0.0, "West": x == 0.0}[side])
    return np.where(x + y < 1.0, DIRICHLET, NEUMANN if side in ("North", "West") else OTHER)


def one_kind(x, y, side):
    return int(kinds(np.array([x]), np.array([y]), side)[0])


def ring(radius):
    return lambda x, y, *_: 0.025 + 0.25 * np.abs(np.hypot(x - 0.9, y - 0.5) - radius)


def by_data(x, y, data, grad, grad2):
    return np.clip(0.3 / (1e-9 + np.abs(grad2)), 0.02, 0.2)


def value(x, y):
    return np.tanh(8.0 * (x + 0.5 * y - 1.0))


def indices_there(part, mesh):
    index_of = {tuple(place): i for i, place in enumerate(mesh.nodes.positions)}
    return np.array([index_of[tuple(place)] for place in part.positions])


def rows_there(part, mesh):
    return mesh.nodes.data[indices_there(part, mesh)[:part.owned]]


def expect_same(part, mesh):
    """All that a process owns is what the mesh has at these places."""
    assert part.size == len(mesh) and part.rectangle == mesh.rectangle
    nodes, n, mine = mesh.nodes, part.owned, indices_there(part, mesh)
    all_mine = np.concatenate(comm.allgather(mine[:n]))
    assert sorted(all_mine) == list(range(len(mesh)))
    assert np.array_equal(all_mine[part.numbers], mine)
    links = np.where(part.links >= 0, all_mine[np.maximum(part.links, 0)], part.links)
    assert np.array_equal(links, nodes.links[mine[:n]])
    for name in ("levels", "areas", "known", "data", "grad", "grad2", "on_boundary"):
        assert np.array_equal(getattr(part, name), getattr(nodes, name)[mine[:n]]), name
    first = np.cumsum([0, *comm.allgather(n)])
    assert np.array_equal(part.owners, np.searchsorted(first, part.numbers, side="right") - 1)
    assert part.agrees()


def expect_error(error, text, function, *arguments, **more):
    try:
        function(*arguments, **more)
    except error as found:
        assert text in str(found), found
        return found
    raise AssertionError(f"no {error.__name__} with {text!r}")


# Plain updates, asked in both ways; kinds of the sides by a function.
mesh = velmar_2d.Mesh(**OPTIONS, bc_type=kinds)
part = Partition(comm, **OPTIONS, bc_type=kinds, overlap=6)
mesh.transfer = part.transfer = "remap"
slow = Partition(comm, **OPTIONS, bc_type=one_kind, vectorised=False, overlap=6)
slow.transfer = "remap"
for step, init_data in enumerate((value, None, None)):
    of_mesh = mesh.update(by_data if step > 0 else ring(0.3), init_data)
    of_part = part.update(by_data if step > 0 else ring(0.3), init_data)
    slow.update(by_data if step > 0 else ring(0.3), init_data, vectorised=False)
    assert (of_part.inserted, of_part.removed, of_part.nodes) == (*of_mesh[1:3], len(mesh))
    expect_same(part, mesh)
    expect_same(slow, mesh)
    mesh.nodes.write_data(np.arange(len(mesh)), column=1)
    part.write_data(rows_there(part, mesh)[:, 1], column=-1)
    slow.data = rows_there(slow, mesh)
slow.update(ring(0.3), vectorised=False), mesh.update(ring(0.3))
slow.rebalance(1.0)
expect_same(slow, mesh)
whole = slow.gather()
if whole is not None:
    nodes = [sorted(zip(*of.nodes.positions.T, of.nodes.data[:, 0])) for of in (whole, mesh)]
    assert nodes[0] == nodes[1] and whole.check() == []

# The other form on the same Partition, and a mesh of plain updates that is shared out.
shared = Partition.from_mesh(comm, mesh if comm.rank == 0 else None, kinds, overlap=6)
expect_same(shared, mesh)
mesh.update(by_data), shared.update(by_data), slow.update(by_data, vectorised=False)
expect_same(shared, mesh)
mesh.resolve(by_data), shared.resolve(by_data), slow.resolve(by_data, vectorised=False)
expect_same(shared, mesh)
expect_same(slow, mesh)
alone = Partition.from_mesh(MPI.COMM_SELF, mesh, kinds)
mesh = alone.gather()
mesh.update(by_data), shared.update(by_data)
expect_same(shared, mesh)

# resolve() asks for what Mesh.resolve() does, and goes on in another place.
mesh = velmar_2d.Mesh(**OPTIONS, bc_type=kinds)
expect_error(velmar_2d.MeshError, "more overlap", Partition, comm, **OPTIONS, overlap=1,
             repairs=False)
part = Partition(comm, **OPTIONS, bc_type=kinds, overlap=1)
assert part.statistics().repairs == 1 and part.statistics().overlap == 2
for radius in (0.3, 0.32):
    mesh.resolve(ring(radius), value, margin=1.0)
    assert part.resolve(ring(radius), value, margin=1.0).inserted == mesh.statistics.inserted
expect_same(part, mesh)
part.gradient(), mesh.gradient()
expect_same(part, mesh)

whole = part.gather()
assert (whole is None) == (comm.rank != 0)
if whole is not None:
    assert whole.check() == [] and len(whole) == len(mesh)
del part
if whole is not None:
    whole.resolve(ring(0.35), value)  # asks for kinds, which the Partition is not there to tell
again = Partition.from_mesh(comm, whole, kinds)
mesh.resolve(ring(0.35), value)
expect_same(again, mesh)
expect_error(velmar_2d.MeshError, "bc_type", Partition.from_mesh, comm, whole)
expect_error(velmar_2d.MeshError, "process 0", Partition.from_mesh, comm, None, kinds)

path = os.path.join(sys.argv[1], f"again_{comm.size}.h5")
os.makedirs(sys.argv[1], exist_ok=True)
again.save(path, data_names=["u", "v"])
loaded = Partition.load(comm, path, bc_type=kinds)
mesh.resolve(ring(0.2), value), loaded.resolve(ring(0.2), value)
expect_same(loaded, mesh)
expect_error(velmar_2d.MeshError, "process 0", Partition.load, comm, path + ".not", bc_type=kinds)

# Progress is told while an update runs, and the limit is that of all processes.
phases = set()


def slow_ring(*arguments):
    time.sleep(0.15)  # progress is told no more often
    return ring(0.25)(*arguments)


mesh = Partition.from_mesh(MPI.COMM_SELF, mesh, kinds).gather()
for adapt in "update", "resolve":
    getattr(mesh, adapt)(ring(0.25))
    getattr(loaded, adapt)(slow_ring, progress=lambda phase, done, known: phases.add(phase))
    expect_same(loaded, mesh)
    assert "refining" in phases, phases
    mesh.subdiv_max = loaded.subdiv_max = 3 if adapt == "update" else 7
    assert loaded.subdiv_max == mesh.subdiv_max and loaded.levels.max() <= loaded.subdiv_max
    expect_same(loaded, mesh)
    phases.clear()

# What one process does wrong is raised on all, and the mesh stays in use.
expect_error(ValueError if comm.rank == LAST else velmar_2d.MeshError, "", setattr, loaded,
             "subdiv_max", -1 if comm.rank == LAST else 5)
rows = np.zeros(loaded.owned + loaded.ghosts + (comm.rank == LAST))
expect_error(ValueError if comm.rank == LAST else velmar_2d.MeshError, "" if comm.rank == LAST
             else f"process {LAST} of", loaded.exchange, rows)
expect_error(TypeError if comm.rank == LAST else velmar_2d.MeshError, "", loaded.resolve,
             0.1 if comm.rank != LAST else "no function")
rows = np.where(np.arange(loaded.owned + loaded.ghosts) < loaded.owned, loaded.numbers, -1.0)
loaded.exchange(rows, layer="linked")
known = loaded.owned + loaded.linked_ghosts
assert np.array_equal(rows[:known], loaded.numbers[:known]) and np.all(rows[known:] == -1.0)


def fails(*arguments):
    if comm.rank == LAST:
        raise ZeroDivisionError("nothing is left")
    return DIRICHLET if isinstance(arguments[-1], str) else 0.1


for broken, arguments in ((Partition(comm, **OPTIONS), {"size": fails}),
                          (Partition(comm, **OPTIONS), {"size": slow_ring, "progress": fails}),
                          (Partition(comm, **OPTIONS), {"size": 0.05, "init_data": fails})):
    error = expect_error(velmar_2d.MeshError, f"on process {LAST} of {comm.size}: Zero",
                         broken.update, **arguments)
    assert isinstance(error.__cause__, ZeroDivisionError) == (comm.rank == LAST)
    expect_error(velmar_2d.MeshError, "earlier", broken.agrees)
    assert len(broken) == 0 and broken.positions.shape == (0, 2), "nodes may have gone"
expect_error(velmar_2d.MeshError, f"process {LAST} of", Partition, comm, bc_type=fails)
expect_error(velmar_2d.MeshError, "while it changes", loaded.resolve, lambda *_: loaded.data[0, 0])
