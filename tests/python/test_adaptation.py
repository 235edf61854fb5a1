"""Vectorised and scalar functions lead to one mesh, to the last bit; and how often each is asked."""
import functools

import numpy as np
import pytest

import velmar_2d
from velmar_2d import Mesh

RECTANGLES = {
    "dyadic": ((0.0, 1.0, 0.0, 0.75), 17),
    "rounded": ((0.1, 0.8, -0.3, 0.4), 12),
    "far": ((1e5 + 0.3, 1e5 + 1.0, 7.0, 7.9), 8),
}


def kind_at(x, y, side):
    """A side condition that changes with the place; for arrays and for numbers."""
    return (np.floor(37.0 * (np.asarray(x) + 2.0 * np.asarray(y)) + len(side)) % 3).astype(int)


def history(rectangle, nx, seed, vectorised, init_vectorised, bc_vectorised):
    """All that a random history leaves behind after each of its steps."""
    random = np.random.default_rng(seed)
    west, east, south, north = rectangle
    left_behind = []
    with Mesh(rectangle, nx=nx, subdiv_max=7, n_cell_data=2, bc_type=kind_at,
              vectorised=bc_vectorised) as mesh:
        first_id = mesh.nodes.ids.min()
        for _ in range(6):
            x0, y0 = random.uniform(west, east), random.uniform(south, north)
            weight, finest = random.uniform(0.0, 0.2), mesh.dist_0 * random.uniform(0.08, 0.5)

            def size(x, y, data, grad, grad2):
                near = 0.3 * np.hypot(x - x0, y - y0) + finest
                steep = 1.0 + weight * np.sqrt(grad) + 0.01 * np.cbrt(grad2)
                return near / steep * (1.0 + 0.1 * np.tanh(data.T[0] - data.T[1]))

            def init_data(x, y):
                return np.sin(5.0 * (x - x0)) * (y - south)

            with_init = random.random() < 0.6
            adapt = mesh.update
            if random.random() < 0.5:
                adapt = functools.partial(mesh.resolve, margin=random.choice([0.0, 1.0]),
                                          slope=random.choice([0.0, 0.2]))
            statistics = adapt(size, init_data if with_init else None, vectorised=vectorised,
                               init_vectorised=init_vectorised)
            nodes = mesh.nodes
            left_behind += [statistics, nodes.positions, nodes.ids - first_id, nodes.levels,
                            nodes.ipos, nodes.links, nodes.data, nodes.grad, nodes.grad2]
            assert mesh.check() == []
            values = nodes.data.copy()
            values[:, 1] = random.uniform(size=len(nodes))
            nodes.write_data(values)
            if random.random() < 0.3:
                mesh.subdiv_max = int(random.integers(3, 9))
    return left_behind


@pytest.mark.parametrize("name", RECTANGLES)
@pytest.mark.parametrize("seed", range(3))
def test_both_ways_give_one_mesh(name, seed):
    rectangle, nx = RECTANGLES[name]
    expected = history(rectangle, nx, seed, False, False, False)
    for way in ((True, True, True), (True, False, True), (False, True, False)):
        for one, other in zip(expected, history(rectangle, nx, seed, *way), strict=True):
            np.testing.assert_array_equal(one, other, err_msg=f"vectorised: {way}")


def test_batches_are_few_and_new_places_are_foreseen():
    sides, batches, places = [], [], []

    def bc_type(x, y, side):
        sides.append((side, len(x)))
        return np.zeros(len(x), dtype=int)

    def size(x, y, data, grad, grad2):
        assert x.shape == y.shape == grad.shape == grad2.shape and data.shape == (len(x), 1)
        batches.append(len(x))
        return 0.003 + 0.1 * np.abs(y - x * x)

    def init_data(x, y):
        places.append(len(x))
        return x + y

    with Mesh(nx=17, ny=17, subdiv_max=9, bc_type=bc_type) as mesh:
        assert sides == [("North", 17), ("East", 17), ("South", 17), ("West", 17)]
        inserted = mesh.update(size, init_data).inserted
        highest = mesh.nodes.ipos.max()
        assert len(batches) == 2 * highest + 1  # each stretch in both passes, the first in one
        assert inserted > 5000
        assert places.count(1) < 0.02 * inserted
        assert len(sides) < 4 + 0.01 * inserted
        assert sum(places) < 3 * inserted
        np.testing.assert_allclose(mesh.nodes.data[:, 0][mesh.nodes.ipos > 0],
                                   mesh.nodes.positions.sum(axis=1)[mesh.nodes.ipos > 0])


def test_arguments_belong_to_who_keeps_them():
    kept = []

    def size(x, y, data, grad, grad2):
        kept.append((x, x.copy(), data[::2], data[::2].copy()))
        x[:1] += 0.0  # they may be written
        return 0.01 + 0.2 * np.abs(x - 0.4)

    with Mesh(nx=9, subdiv_max=6, n_cell_data=2) as mesh:
        mesh.update(size, lambda x, y: x)
        mesh.update(size)
    assert len(kept) > 10
    for x, x_then, data, data_then in kept:
        np.testing.assert_array_equal(x, x_then)
        np.testing.assert_array_equal(data, data_then)


def test_scalar_functions_get_one_node():
    seen = []

    def size(x, y, data, grad, grad2):
        seen.append((x, y, tuple(data)))
        return 1.0

    with Mesh(nx=3, n_cell_data=2, bc_type=lambda x, y, side: velmar_2d.NEUMANN, vectorised=False) as mesh:
        mesh.nodes.write_data(np.arange(18.0).reshape(9, 2))
        mesh.update(size, vectorised=False)
        assert seen == [(*p, tuple(d)) for p, d in zip(mesh.nodes.positions, mesh.nodes.data)]
        assert all(type(x) is float for x, _, _ in seen)
        assert set(velmar_2d.kind_of(mesh.nodes.links[mesh.nodes.links < -1])) == {velmar_2d.NEUMANN}


def test_a_number_is_a_spacing_and_nan_leaves_nodes_alone():
    with Mesh(nx=5, ny=5, subdiv_max=6) as mesh:
        mesh.update(0.125)
        assert len(mesh) >= 81
        mesh.update(lambda *_: np.nan)  # completes figures that others have begun
        before = mesh.revision
        mesh.update(lambda *_: np.nan)
        assert mesh.revision == before
        assert mesh.update(lambda *_: 0.0).refused > 0
        mesh.update(1e9)
        assert len(mesh) == 25


def test_derivatives_are_those_of_the_data(adapted):
    adapted.update(np.nan)
    x, y = adapted.nodes.x, adapted.nodes.y
    adapted.nodes.write_data(3.0 * x * x - 2.0 * x * y, column=0)
    gradient = adapted.gradient()
    inside = adapted.nodes.on_boundary == 0
    np.testing.assert_allclose(gradient[inside, 0], (6.0 * x - 2.0 * y)[inside], atol=1e-9)
    np.testing.assert_allclose(gradient[inside, 1], (-2.0 * x)[inside], atol=1e-9)
    np.testing.assert_allclose(adapted.nodes.grad2, np.sqrt(36.0 + 2 * 4.0), rtol=1e-6)
    adapted.nodes.write_data(np.zeros(len(x)), column=0)
    assert (adapted.nodes.grad > 0.0).any()  # as last computed
    adapted.update(np.nan)
    assert not adapted.nodes.grad.any()


def levels_short(mesh, size):
    """By how many levels each node is too coarse."""
    nodes = mesh.nodes
    wanted = 2.0 * np.log2(mesh.dist_0 / size(nodes.x, nodes.y, nodes.data, nodes.grad, nodes.grad2))
    return np.minimum(np.ceil(wanted - 1e-8), mesh.subdiv_max) - nodes.levels


def test_resolve_leaves_no_node_too_coarse_and_then_rests():
    def steep(x, y, *_):
        return 0.002 + 1.3 * np.hypot(x - 0.4, y - 0.7)

    with Mesh(nx=9, subdiv_max=20) as mesh:
        for _ in range(5):
            mesh.update(steep)
        assert levels_short(mesh, steep).max() > 0  # more than update() can do
        done = mesh.resolve(steep)
        assert levels_short(mesh, steep).max() <= 0
        assert done == mesh.statistics and done.inserted > 0
        before = mesh.revision
        rest = mesh.resolve(steep)
        assert mesh.revision == before and rest == (len(mesh), 0, 0, 0)
        mesh.resolve(lambda *a: 1.3 * steep(*a), margin=1.0)  # 0.76 levels less
        assert mesh.revision == before
        mesh.resolve(lambda *a: 1.3 * steep(*a))
        assert mesh.revision > before and mesh.check() == []


def test_slope_grades_sizes():
    def thin(x, y, *_):
        return np.where(np.abs(x - 0.5) < 0.01, 0.02, 1.0)

    with Mesh(nx=9, ny=9) as mesh:
        mesh.resolve(thin)
        few = len(mesh)
        mesh.resolve(thin, slope=0.2)
        nodes = mesh.nodes
        near = (nodes.x - 0.5) ** 2 < 0.2 ** 2
        assert len(mesh) > 1.5 * few
        assert mesh.dist_0 / 2.0 ** (nodes.levels[near].min() / 2.0) <= 0.02 + 0.2 * 0.2


def test_resolve_ends_where_more_nodes_are_needed():
    with Mesh(nx=9, ny=9, subdiv_max=12) as mesh:
        with pytest.raises(velmar_2d.MeshError, match="more than 5000 nodes would be needed"):
            mesh.resolve(1e-5, most_nodes=5000)
        assert len(mesh) == 5000 and mesh.check() == []
        mesh.resolve(np.inf, most_nodes=5000)
        mesh.resolve(0.03, most_nodes=5000)
        assert 1000 < len(mesh) < 5000
        for most_nodes in (0, -1):
            with pytest.raises(ValueError, match="most_nodes"):
                mesh.resolve(0.03, most_nodes=most_nodes)


@pytest.mark.parametrize("name", RECTANGLES)
def test_places_of_resolve_are_foreseen(name):
    rectangle, nx = RECTANGLES[name]
    batches, places, sides = [], [], []
    west, _, south, _ = rectangle

    def size(x, y, *_):
        batches.append(len(x))
        return 0.004 + 0.3 * np.abs(np.hypot(x - west, y - south) - 0.5)

    def init_data(x, y):
        places.append(len(x))
        return x + y

    def bc_type(x, y, side):
        sides.append(len(x))
        return np.zeros(len(x), dtype=int)

    with Mesh(rectangle, nx=nx, subdiv_max=12, bc_type=bc_type) as mesh:
        first = len(mesh)
        done = mesh.resolve(size, init_data)
        new = mesh.nodes.ipos > 0
        np.testing.assert_array_equal(mesh.nodes.data[new, 0], mesh.nodes.positions[new].sum(axis=1))
        assert batches[0] == first and sum(batches) == done.visited == first + done.inserted
        assert len(batches) < 20 and done.inserted > 2000
        one_by_one = 0.1 if name == "rounded" else 0.01  # last bits of coordinates differ
        assert places.count(1) + sides.count(1) < one_by_one * done.inserted
        assert sum(places) < 2 * done.inserted
