"""The arrays describe one whole mesh, are copied once, and know when they are out of date."""
import gc
import os

import numpy as np
import pytest

import velmar_2d
from velmar_2d import Mesh, MeshError

# Unit steps of the eight link directions.
AWAY = np.array([(0, 1), (1, 1), (1, 0), (1, -1), (0, -1), (-1, -1), (-1, 0), (-1, 1)])


def test_links_lead_where_they_point_and_back(adapted):
    nodes = adapted.nodes
    assert nodes.links.shape == (len(adapted), 8) and nodes.links.dtype == np.int32
    for d in range(8):
        there = nodes.links[:, d]
        linked = np.flatnonzero(there >= 0)
        way = nodes.positions[there[linked]] - nodes.positions[linked]
        reach = np.abs(way).max(axis=1, keepdims=True)
        np.testing.assert_allclose(way / reach, np.broadcast_to(AWAY[d], way.shape), atol=1e-12)
        assert (nodes.links[there[linked], (d + 4) % 8] == linked).all()
    assert len(np.unique(nodes.ids)) == len(adapted) and nodes.ids.dtype == np.int64
    assert (np.diff(nodes.ipos) >= 0).all() and (nodes.levels <= adapted.subdiv_max).all()


def test_codes_name_side_and_kind(adapted):
    nodes = adapted.nodes
    west, east, south, north = adapted.rectangle
    kinds = [velmar_2d.DIRICHLET, velmar_2d.NEUMANN, velmar_2d.OTHER, velmar_2d.DIRICHLET]
    lines = [nodes.y == north, nodes.x == east, nodes.y == south, nodes.x == west]
    for side, (kind, on_line) in enumerate(zip(kinds, lines)):
        codes = nodes.links[:, 2 * side]
        np.testing.assert_array_equal(velmar_2d.side_of(codes) == side, on_line)
        assert set(velmar_2d.kind_of(codes[on_line])) == {kind}
        assert set(codes[on_line]) == {velmar_2d.side_code(velmar_2d.SIDES[side], kind)}
    assert velmar_2d.side_of([5, 0, velmar_2d.NO_LINK]).tolist() == [-1, -1, -1]
    np.testing.assert_array_equal(nodes.on_boundary, np.sum(lines, axis=0))
    np.testing.assert_array_equal(nodes.known, lines[0] | lines[3])


def test_cells_fill_the_domain(adapted):
    nodes = adapted.nodes
    offsets, vertices = nodes.polygons
    assert offsets[0] == 0 and offsets[-1] == len(vertices)
    following = np.arange(len(vertices)) + 1
    following[offsets[1:] - 1] = offsets[:-1]
    cross = vertices[:, 0] * vertices[following, 1] - vertices[following, 0] * vertices[:, 1]
    np.testing.assert_allclose(np.add.reduceat(cross, offsets[:-1]) / 2.0, nodes.areas, rtol=1e-9)
    assert nodes.areas.sum() == pytest.approx(2.0)
    assert len(nodes.polygons[-1]) == offsets[-1] - offsets[-2]
    with pytest.raises(IndexError):
        nodes.polygons[len(nodes)]


def test_faces_close_every_cell(adapted):
    nodes, faces = adapted.nodes, adapted.nodes.faces
    assert (faces.b[faces.inner] > faces.a[faces.inner]).all()
    pairs = faces.a[faces.inner].astype(np.int64) * len(nodes) + faces.b[faces.inner]
    assert len(np.unique(pairs)) == len(pairs)
    normal = np.zeros((len(faces.a), 2))
    way = nodes.positions[faces.b[faces.inner]] - nodes.positions[faces.a[faces.inner]]
    np.testing.assert_allclose(np.hypot(*way.T), faces.distance[faces.inner], rtol=1e-12)
    normal[faces.inner] = way / faces.distance[faces.inner, None]
    normal[~faces.inner] = AWAY[2 * velmar_2d.side_of(faces.b[~faces.inner])]
    flow = normal * faces.length[:, None]
    out = np.zeros((len(nodes), 2))
    np.add.at(out, faces.a, flow)
    np.subtract.at(out, faces.b[faces.inner], flow[faces.inner])
    np.testing.assert_allclose(out, 0.0, atol=1e-12)
    assert faces.length[~faces.inner].sum() == pytest.approx(6.0)


def test_triangles_fill_the_domain(adapted):
    corners = adapted.nodes.positions[adapted.nodes.triangles]
    (ax, ay), (bx, by) = (corners[:, 1] - corners[:, 0]).T, (corners[:, 2] - corners[:, 0]).T
    assert (ax * by > ay * bx).all()
    assert np.sum(ax * by - ay * bx) / 2.0 == pytest.approx(2.0)


def test_one_copy_for_each_revision(adapted, sizes):
    adapted.update(np.nan)
    nodes = adapted.nodes
    for field in ("positions", "links", "data", "areas", "faces", "polygons", "grad"):
        assert getattr(adapted.nodes, field) is getattr(nodes, field)
    assert nodes.x.base is nodes.positions
    for array in (nodes.positions, nodes.links, nodes.data, nodes.faces.length, nodes.polygons.vertices):
        with pytest.raises(ValueError, match="read-only"):
            array[0] = 0
    # Data change while the nodes stay; places do not.
    places, data = nodes.positions, nodes.data
    nodes.write_data(data + 1.0)
    assert adapted.nodes is nodes and nodes.positions is places
    np.testing.assert_array_equal(nodes.data, data + 1.0)
    adapted.update(np.nan)
    assert adapted.nodes is nodes and nodes.grad is nodes.grad


def test_data_are_written_back_in_one_call(adapted):
    nodes = adapted.nodes
    values = np.arange(2.0 * len(nodes)).reshape(-1, 2)
    nodes.write_data(values)
    np.testing.assert_array_equal(nodes.data, values)
    nodes.write_data(-np.arange(len(nodes)), column=-1)  # integers, and one column
    values[:, 1] = -np.arange(len(nodes))
    np.testing.assert_array_equal(nodes.data, values)
    nodes.write_data(np.asfortranarray(values[::-1])[::1])
    np.testing.assert_array_equal(nodes.data, values[::-1])
    n = len(nodes)
    for wrong, column, text in ((values[:-1], None, rf"\({n - 1}, 2\).*\({n}, 2\)"),
                                (values[:, 0], None, rf"\({n},\).*\({n}, 2\)"),
                                (values, 0, rf"\({n}, 2\).*\({n},\)"), (1.0, None, r"\(\)")):
        with pytest.raises(ValueError, match=text):
            nodes.write_data(wrong, column)
    with pytest.raises(IndexError, match="2 data values"):
        nodes.write_data(values[:, 0], column=2)
    np.testing.assert_array_equal(nodes.data, values[::-1])


def test_stale_nodes_are_recognised(adapted):
    nodes = adapted.nodes
    places, data = nodes.positions.copy(), nodes.data
    adapted.update(0.2)
    assert not nodes.is_current and adapted.nodes.is_current and "stale" in repr(nodes)
    np.testing.assert_array_equal(nodes.positions, places)
    assert nodes.data is data
    now = adapted.nodes.data
    with pytest.raises(MeshError, match=f"revision {nodes.revision} .*revision {adapted.revision}"):
        nodes.write_data(data)
    for field in ("links", "areas", "faces", "grad", "known"):
        with pytest.raises(MeshError, match=f"{field} of revision"):
            getattr(nodes, field)
    np.testing.assert_array_equal(adapted.nodes.data, now)
    # As many nodes as before, but others.
    kept = adapted.nodes
    adapted.update(0.05), adapted.update(0.2)
    assert len(adapted) == len(kept) and not kept.is_current


def test_arrays_outlive_the_mesh(adapted):
    nodes = adapted.nodes
    links, vertices = nodes.links, nodes.polygons.vertices
    checksum = links.sum(), vertices.sum()
    adapted.delete()
    del adapted
    with Mesh(nx=33) as other:
        other.update(0.02)
        assert (links.sum(), vertices.sum()) == checksum
        with pytest.raises(MeshError, match="deleted"):
            nodes.areas
        with pytest.raises(MeshError, match="deleted"):
            nodes.write_data(nodes.positions)


def resident_megabytes():
    with open("/proc/self/statm") as file:
        return int(file.read().split()[1]) * os.sysconf("SC_PAGE_SIZE") / 1e6


def test_memory_stays_flat(sizes):
    fields = ("positions", "links", "data", "grad", "areas", "faces", "polygons", "triangles")
    with Mesh(nx=17, ny=17, subdiv_max=9, n_cell_data=3) as mesh:
        def step(i):
            mesh.update(sizes(0.4 + 0.1 * (i % 3), 0.01, 0.1), lambda x, y: x * y)
            for field in fields:
                getattr(mesh.nodes, field)
            nodes = mesh.nodes
            nodes.write_data(nodes.data + 1.0)

        for i in range(50):
            step(i)
        gc.collect()
        before = resident_megabytes()
        for i in range(200):
            step(i)
        gc.collect()
        # One round of arrays is above 1 MB: a leak of any of them shows.
        assert resident_megabytes() - before < 8.0
