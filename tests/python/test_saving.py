"""Files that h5py reads, and meshes that go on as the saved ones do."""
import copy
import logging
import pickle

import h5py
import numpy as np
import pytest

import velmar_2d


def kinds_by_place(x, y, side):
    return (10 * x).astype(int) % 3


def state(mesh):
    nodes = mesh.nodes
    return [np.array(field) for field in (nodes.positions, nodes.links, nodes.levels, nodes.ids,
                                          nodes.data, nodes.areas, nodes.grad)] + [
        np.array(mesh.transfer), np.array(mesh.statistics),
        np.array([mesh.revision, mesh.subdiv_max, *mesh.rectangle])]


def assert_same(one, other):
    for a, b in zip(state(one), state(other)):
        np.testing.assert_array_equal(a, b)


def assert_same_future(one, other, sizes):
    assert_same(one, other)
    for step in range(4):
        for mesh in (one, other):
            mesh.update(sizes(0.7 + 0.05 * step, 0.02, 0.125))
            if step == 2:
                mesh.subdiv_max = 5
                mesh.resolve(sizes(0.9, 0.03, 0.125))
        assert_same(one, other)


# Catches a codec that only this package understands, and links or units written otherwise than told.
def test_h5py_reads_what_the_mesh_is(adapted, tmp_path):
    path = tmp_path / "mesh.h5"
    u = np.arange(len(adapted), dtype=np.float32)
    adapted.save(path, {"u": u, "pairs": [[1, 2], [3, 4]], "none": []}, time=2.5, length_unit="m",
                 data_names=["T", "p"], data_units=["K", "Pa"])
    nodes = adapted.nodes
    with h5py.File(path) as file:
        assert file.attrs["format"] == "velmar_2d"
        assert file.attrs["velmar_2d_version"] == velmar_2d.__version__
        mesh = file["mesh"]
        assert mesh.attrs["nodes"] == len(adapted) and mesh.attrs["time"] == 2.5
        assert mesh["x"].attrs["units"] == "m" and list(mesh["data"].attrs["units"]) == ["K", "Pa"]
        np.testing.assert_array_equal(np.stack([mesh["x"], mesh["y"]], axis=1), nodes.positions)
        for name, field in (("links", nodes.links), ("level", nodes.levels), ("id", nodes.ids),
                            ("data", nodes.data), ("grad_data", nodes.grad), ("arrays/u", u)):
            np.testing.assert_array_equal(mesh[name][()], field)
            assert mesh[name].compression == "gzip"
        np.testing.assert_array_equal(mesh["arrays/pairs"], [[1, 2], [3, 4]])
        assert sum(mesh["stretches"][:]) == len(adapted)
    arrays = velmar_2d.load_arrays(path)
    assert sorted(arrays) == ["none", "pairs", "u"] and arrays["pairs"].tolist() == [[1, 2], [3, 4]]
    assert velmar_2d.saved_meshes(path) == [("mesh", len(adapted), None, 2.5)]


# What another program adds does not hurt; what it spoils is found.
def test_files_that_h5py_has_changed(adapted, tmp_path):
    path = tmp_path / "mesh.h5"
    adapted.save(path)
    with h5py.File(path, "r+") as file:
        file["mesh"].attrs["note"] = "seen"
        file["mine"] = np.zeros(1000)
    assert_same(velmar_2d.Mesh.load(path), adapted)
    with h5py.File(path, "r+") as file:
        links = file["mesh/links"][()]
        links[3, 0] = len(adapted)
        file["mesh/links"][...] = links
    with pytest.raises(velmar_2d.MeshError, match="a link leads to no node"):
        velmar_2d.Mesh.load(path)


def test_loaded_meshes_and_copies_go_on_alike(adapted, tmp_path, sizes):
    adapted.nodes  # numbers the nodes
    adapted.remark = ["mine"]
    adapted.transfer = "conservative"
    path = tmp_path / "mesh.h5"
    adapted.save(path)
    twins = [velmar_2d.Mesh.load(path), copy.copy(adapted), copy.deepcopy(adapted),
             pickle.loads(pickle.dumps(adapted))]
    assert twins[1].remark is adapted.remark and twins[2].remark is not adapted.remark
    assert twins[3].remark == ["mine"]
    for twin in twins:
        assert_same_future(copy.copy(adapted), twin, sizes)
        assert twin.check() == []


def test_kinds_that_are_a_function(tmp_path, sizes):
    mesh = velmar_2d.Mesh((0, 2, 0, 1), nx=17, subdiv_max=6, bc_type=kinds_by_place)
    mesh.update(sizes(0.7, 0.02, 0.125))
    path = tmp_path / "mesh.h5"
    mesh.save(path)
    with pytest.raises(velmar_2d.MeshError, match="'bc_type' must be given"):
        velmar_2d.Mesh.load(path)
    twin = pickle.loads(pickle.dumps(mesh))
    assert_same_future(copy.copy(mesh), twin, sizes)
    assert_same_future(velmar_2d.Mesh.load(path, bc_type=kinds_by_place), mesh, sizes)


def test_series_and_several(adapted, tmp_path):
    path = tmp_path / "series.h5"
    saved = []
    for step in range(3):
        adapted.update(0.125 / (step + 1))
        saved.append(copy.copy(adapted))
        assert adapted.save_step(path, 0.5 * step, {"step": [step]}) == step
    assert_same(velmar_2d.Mesh.load(path), saved[2])
    assert_same(velmar_2d.Mesh.load(path, step=1), saved[1])
    assert_same(velmar_2d.Mesh.load(path, time=0.4), saved[0])
    assert velmar_2d.load_arrays(path, step=1)["step"] == [1]
    assert [found.time for found in velmar_2d.saved_meshes(path)] == [0.0, 0.5, 1.0]
    velmar_2d.save_meshes(path, {"one": saved[0], "two": saved[1]})
    assert_same(velmar_2d.Mesh.load(path, "two"), saved[1])


def test_what_is_refused(adapted, tmp_path, caplog):
    path = tmp_path / "mesh.h5"
    with pytest.raises(FileNotFoundError):
        velmar_2d.Mesh.load(path)
    with pytest.raises(TypeError, match="'z' is of complex128"):
        adapted.save(path, {"z": np.zeros(2, dtype=complex)})
    with pytest.raises(ValueError, match="'big' has integers"):
        adapted.save(path, {"big": [2**53 + 1]})
    with pytest.raises(ValueError, match="3 dimensions"):
        adapted.save(path, {"deep": np.zeros((1, 2, 3))})
    with pytest.raises(velmar_2d.MeshError, match="more names or units than the 2 values"):
        adapted.save(path, data_names=["a", "b", "c"])
    assert list(tmp_path.iterdir()) == []
    path.write_text("no mesh")
    with pytest.raises(velmar_2d.MeshError, match="no HDF5 file"):
        velmar_2d.Mesh.load(path)
    adapted.delete()
    for act in (adapted.save, pickle.dumps, copy.copy):
        with pytest.raises(velmar_2d.MeshError, match="has been deleted"):
            act(path) if act == adapted.save else act(adapted)
    assert caplog.records == []
