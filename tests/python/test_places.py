"""Nodes, values and lines at places of the caller's, and data from one mesh to another."""
import numpy as np
import pytest

from velmar_2d import Mesh, MeshError


def filled(mesh):
    nodes = mesh.nodes
    nodes.write_data(np.stack([2.0 * nodes.x - nodes.y, np.sin(3.0 * nodes.x) * nodes.y], axis=1))
    return mesh


@pytest.fixture
def places():
    """Places in no order; the last column lies outside."""
    random = np.random.default_rng(1)
    x, y = random.uniform(0, 2, (40, 30)), random.uniform(0, 1, (40, 30))
    x[:, -1] += 2.0
    return x, y


def test_locate_finds_the_nearest_node(adapted, places):
    x, y = places
    found = adapted.locate(x, y)
    assert found.shape == x.shape and found.dtype == np.int32
    assert (found[:, -1] == -1).all() and (found[:, :-1] >= 0).all()
    nodes = adapted.nodes
    away = np.hypot(x[..., np.newaxis] - nodes.x, y[..., np.newaxis] - nodes.y)
    np.testing.assert_array_equal(found[:, :-1], away.argmin(axis=2)[:, :-1])
    assert adapted.locate(0, 1) == adapted.locate([0.0], 1.0)[0]
    assert adapted.locate(np.nan, 0.5) == -1


def test_values_follow_their_rule_and_shape(adapted, places):
    filled(adapted)
    x, y = places
    for how in ("linear", "gradient"):
        values = adapted.value_at(x, y, how)
        np.testing.assert_allclose(values[:, :-1], (2 * x - y)[:, :-1], atol=1e-13)
        assert np.isnan(values[:, -1]).all()
    found = adapted.locate(x, y)[:, :-1]
    both = adapted.value_at(x, y, "constant", value=None)
    assert both.shape == (40, 30, 2)
    np.testing.assert_array_equal(both[:, :-1], adapted.nodes.data[found])
    assert isinstance(adapted.value_at(0.5, 0.5), float)
    with pytest.raises(ValueError, match="'cubic'.*'constant', 'linear' or 'gradient'"):
        adapted.value_at(0, 0, "cubic")
    with pytest.raises(IndexError, match="no value 2: the nodes have 2"):
        adapted.value_at(0, 0, value=2)


def test_sample_is_an_image_from_south_to_north(adapted):
    filled(adapted)
    image = adapted.sample(40)
    assert image.shape == (20, 40)
    np.testing.assert_allclose(image[3, 7], 2 * 7.5 / 20 - 3.5 / 20, atol=1e-13)
    assert adapted.sample(4, 5, "constant", None).shape == (5, 4, 2)
    with pytest.raises(ValueError, match="ny is 0"):
        adapted.sample(4, 0)


def test_line_cut_runs_through_the_cells(adapted):
    filled(adapted)
    cut = adapted.line_cut((-1.0, 0.4), (2.0, 0.7))
    assert cut.enter[0] == pytest.approx(np.hypot(1.0, 0.1))
    assert cut.leave[-1] == pytest.approx(np.hypot(3.0, 0.3))
    np.testing.assert_array_equal(cut.enter[1:], cut.leave[:-1])
    middle = (cut.start + cut.end) / 2
    np.testing.assert_array_equal(cut.nodes, adapted.locate(*middle.T))
    np.testing.assert_array_equal(cut.values, adapted.nodes.data[cut.nodes])
    assert len(adapted.line_cut((3, 0), (3, 1)).nodes) == 0


def test_transfer_keeps_sums_or_reads_at_nodes(adapted, sizes):
    filled(adapted)
    other = Mesh((0, 2, 0, 1), nx=11, subdiv_max=8, n_cell_data=2)
    other.update(sizes(1.1, 0.02, 0.2))
    assert other.transfer_from(adapted) == len(other)
    nodes = other.nodes
    np.testing.assert_array_equal(nodes.data, adapted.value_at(nodes.x, nodes.y, value=None))
    assert other.transfer_from(adapted, conservative=True) == len(other)
    content = [mesh.nodes.areas @ mesh.nodes.data for mesh in (adapted, other)]
    np.testing.assert_allclose(content[1], content[0], rtol=1e-12)
    before = other.nodes.data
    assert other.transfer_from(other, how="constant") == len(other)
    np.testing.assert_array_equal(other.nodes.data, before)
    adapted.delete()
    with pytest.raises(MeshError, match="deleted"):
        other.transfer_from(adapted)
