"""What becomes of data where nodes come and go."""
import numpy as np
import pytest

from velmar_2d import Mesh, MeshError


def adapt(mesh, random, **hooks):
    """Some change of the mesh, of any kind."""
    x0, y0 = random.uniform(size=2)
    finest, slope = random.uniform(0.01, 0.05), random.uniform(0.1, 1.0)

    def size(x, y, *_):
        return np.maximum(finest, slope * np.hypot(x - x0, y - y0))

    way = random.integers(4)
    if way == 0:
        mesh.resolve(size, **hooks)
    elif way == 1:
        mesh.update(lambda x, y, *rest: float(size(x, y)), vectorised=False, **hooks)
    else:
        mesh.update(size, **hooks)


def content(mesh):
    return mesh.nodes.areas @ mesh.nodes.data


@pytest.mark.parametrize("transfer", ["conservative", "remap"])
def test_conservative_transfers_lose_nothing(transfer):
    random = np.random.default_rng(5)
    with Mesh(nx=9, subdiv_max=9, n_cell_data=3) as mesh:
        assert mesh.transfer == "first"
        mesh.transfer = transfer
        assert mesh.transfer == transfer
        mesh.nodes.write_data(random.uniform(-1.0, 1.0, mesh.nodes.data.shape))
        before = content(mesh)
        for _ in range(12):
            adapt(mesh, random)
            mesh.subdiv_max = int(random.integers(4, 10))
            np.testing.assert_allclose(content(mesh), before, rtol=0, atol=1e-13)
        with pytest.raises(ValueError, match="transfer is 'none'"):
            mesh.transfer = "none"


def test_hooks_are_told_of_each_node_once_and_in_order():
    """Tokens are handed on by the hooks alone: none is lost, and none comes twice."""
    random = np.random.default_rng(7)
    told = {"inserted": 0, "removed": 0, "calls": 0}

    def inserted(x, y, data, parents):
        assert data.shape == (len(x), 2) and parents.shape == (len(x), 4, 2)
        np.testing.assert_allclose(np.nanmin(parents[:, :, 0], axis=1), data[:, 0], atol=0.5)
        np.testing.assert_allclose(data[:, 0], x + 2.0 * y, atol=1e-12)  # interpolated
        np.testing.assert_array_equal(data[:, 1], 0.0)
        told["inserted"] += len(x)
        told["calls"] += 1

    def removing(x, y, data, around, rows):
        np.testing.assert_allclose(data[:, 0], x + 2.0 * y, atol=1e-12)
        assert (rows[:, :2] >= 0).all() and rows.max() < len(around)
        np.add.at(around[:, 1], rows[:, 0], data[:, 1])
        told["removed"] += len(x)
        told["calls"] += 1

    with Mesh(nx=9, subdiv_max=9, n_cell_data=2) as mesh:
        visited = 0
        for _ in range(12):
            tokens = random.integers(0, 5, len(mesh))
            mesh.nodes.write_data(np.stack([mesh.nodes.x + 2.0 * mesh.nodes.y, tokens], axis=1))
            told.update(inserted=0, removed=0)
            adapt(mesh, random, inserted=inserted, removing=removing)
            visited += told["inserted"] + told["removed"]
            assert (told["inserted"], told["removed"]) == mesh.statistics[1:3]
            assert mesh.nodes.data[:, 1].sum() == tokens.sum()
            assert mesh.check() == []
        assert told["calls"] < visited / 5  # arrays, not single nodes


def test_what_a_hook_writes_stays_and_what_it_raises_arrives():
    with Mesh(nx=9, subdiv_max=8, n_cell_data=1) as mesh:
        def inserted(x, y, data, parents):
            data[:, 0] = np.sin(9.0 * x) + y

        mesh.nodes.write_data((np.sin(9.0 * mesh.nodes.x) + mesh.nodes.y)[:, None])
        mesh.resolve(lambda x, y, *_: 0.02 + 0.3 * np.abs(y - 0.4), inserted=inserted)
        np.testing.assert_array_equal(mesh.nodes.data[:, 0],
                                      np.sin(9.0 * mesh.nodes.x) + mesh.nodes.y)

        def raising(*_):
            raise KeyError("enough")

        def using_the_mesh(*_):
            mesh.update(1.0)

        for hook, error in ((raising, KeyError), (using_the_mesh, MeshError)):
            with pytest.raises(error):
                mesh.resolve(0.1, removing=hook)
            assert mesh.check() == []
            mesh.resolve(lambda x, y, *_: 0.02 + 0.3 * np.abs(y - 0.4))
        with pytest.raises(TypeError, match="removing must be callable, not int"):
            mesh.update(0.1, removing=3)
