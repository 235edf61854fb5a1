"""Meshes side by side: none knows of another, and each goes with the last that holds it."""
import copy
import gc
import pickle
import threading
import weakref

import numpy as np
import pytest

import velmar_2d
from velmar_2d import Mesh, MeshError

FIELDS = ("positions", "ids", "levels", "links", "data", "grad", "areas", "triangles")


def kind_at(x, y, side):
    return (np.floor(23.0 * (x + 3.0 * y) + len(side)) % 3).astype(int)


class History:
    """Updates of one mesh, drawn from a seed, and all that is left behind after each."""

    def __init__(self, seed):
        self.random = np.random.default_rng(seed)
        self.mesh = Mesh((0, 1, 0, 0.5 + 0.25 * (seed % 3)), nx=9, subdiv_max=8,
                         n_cell_data=1 + seed % 2, bc_type=kind_at if seed % 2 else "neumann")
        self.left_behind = []

    def step(self):
        mesh = self.mesh
        x0, slope = self.random.uniform(size=2)

        def size(x, y, data, grad, grad2):
            return (0.01 + (0.1 + 0.2 * slope) * np.abs(x - x0)) / (1.0 + 0.01 * grad)

        mesh.subdiv_max = int(self.random.integers(5, 10))
        mesh.update(size, (lambda x, y: np.sin(9.0 * x * y - x0)) if slope < 0.6 else None)
        self.left_behind.append([getattr(mesh.nodes, field) for field in FIELDS])
        assert mesh.check() == []

    def run(self, steps=6):
        for _ in range(steps):
            self.step()
        return self


def assert_same(histories):
    for seed, history in enumerate(histories):
        alone = History(seed).run(len(history.left_behind))
        for fields, others in zip(alone.left_behind, history.left_behind, strict=True):
            for name, one, other in zip(FIELDS, fields, others):
                np.testing.assert_array_equal(one, other, err_msg=f"{name} of mesh {seed}")


def test_in_turn_each_is_as_alone():
    small, large = Mesh(nx=5), Mesh((0, 2, 0, 2), nx=5)
    assert small.revision == large.revision
    np.testing.assert_array_equal(2.0 * small.nodes.positions, large.nodes.positions)
    histories = [History(seed) for seed in range(4)]
    for _ in range(6):
        for history in histories:
            history.step()
    assert_same(histories)


def test_in_threads_each_is_as_alone():
    histories = [History(seed) for seed in range(4)]
    threads = [threading.Thread(target=history.run, args=(12,)) for history in histories]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert [len(history.left_behind) for history in histories] == [12] * 4
    assert_same(histories)


def test_a_callback_may_use_another_mesh_and_other_threads_their_own():
    with Mesh(nx=5, subdiv_max=6) as one, Mesh(nx=9, subdiv_max=6) as other:
        done = []

        def size(x, *_):
            other.update(lambda x, *_: 0.02 + np.abs(x - 0.5))
            assert len(one) >= 25  # reading what is known at once is allowed meanwhile
            thread = threading.Thread(target=lambda: done.append(Mesh(nx=4).update(0.1)))
            thread.start()
            thread.join()
            return 0.1 + 0.0 * x
        one.update(size)
        assert done and one.check() == [] and other.check() == []


def test_copies_of_nodes_are_refused_and_do_no_harm(adapted):
    adapted.update(np.nan)
    before = len(adapted), adapted.revision, adapted.nodes.data
    for attempt in (lambda mesh: copy.deepcopy(mesh.nodes), lambda mesh: pickle.dumps(mesh.nodes)):
        with pytest.raises(TypeError, match="cannot (be copied or )?pickle"):
            attempt(adapted)
    assert adapted.is_alive and before[:2] == (len(adapted), adapted.revision)
    adapted.update(np.nan)
    np.testing.assert_array_equal(adapted.nodes.data, before[2])


@pytest.fixture
def no_collector():
    gc.collect()
    gc.disable()
    yield
    gc.enable()


def test_a_mesh_goes_with_the_last_that_holds_it(no_collector):
    class Kind:
        def __call__(self, x, y, side):
            return np.zeros(len(x), dtype=int)

    kind = Kind()
    mesh = Mesh(nx=5, subdiv_max=7, bc_type=kind)
    mesh.update(0.05, lambda x, y: x)
    nodes = mesh.nodes
    taken = [nodes.positions, nodes.links, nodes.faces.length, nodes.polygons.vertices]
    copies = [array.copy() for array in taken]
    gone = [weakref.ref(part) for part in (mesh, nodes, mesh._core, kind)]
    del mesh, kind
    assert gone[0]() is None and gone[3]() is None
    assert nodes.is_current and len(nodes.areas) == len(nodes)  # they keep what they are read from
    del nodes
    assert gone[1]() is None and gone[2]() is None
    for array, copied in zip(taken, copies):
        np.testing.assert_array_equal(array, copied)
    deleted = Mesh(nx=5, bc_type=(kind := Kind()))
    deleted.delete()
    kind = weakref.ref(kind)
    assert kind() is None


def test_the_collector_finds_a_mesh_whose_function_holds_it():
    class Solver:
        def __init__(self):
            self.mesh = Mesh(nx=4, bc_type=self.kind)

        def kind(self, x, y, side):
            return np.zeros(len(x), dtype=int)

    gone = weakref.ref(Solver())
    gc.collect()
    assert gone() is None


def test_a_thread_cannot_use_what_another_changes():
    with Mesh(nx=5, subdiv_max=6) as mesh:
        caught = []

        def from_elsewhere():
            for use in (lambda: len(mesh), lambda: mesh.update(0.1), mesh.delete):
                with pytest.raises(MeshError, match="another thread"):
                    use()
            caught.append(True)

        def size(*_):
            if not caught:
                thread = threading.Thread(target=from_elsewhere)
                thread.start()
                thread.join()
            return 0.1
        mesh.update(size)
        assert caught and mesh.check() == []
        assert velmar_2d.kind_of(mesh.nodes.links).max() == velmar_2d.DIRICHLET
