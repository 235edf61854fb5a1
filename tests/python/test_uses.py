"""Pictures, files, matrices; and that what is documented and declared is what is there."""
import ast
import contextlib
import graphlib
import inspect
import pathlib
import re

import matplotlib.pyplot as pyplot
import meshio
import numpy as np
import pytest

import velmar_2d
from velmar_2d import Mesh, _core


@pytest.fixture(autouse=True)
def no_figure():
    yield
    pyplot.close("all")


def test_pictures_show_every_link_and_cell(adapted):
    nodes = adapted.nodes
    ax = adapted.plot("links")
    lines = ax.collections[0]
    assert len(lines.get_segments()) == np.sum(nodes.links >= 0) / 2
    assert lines.get_array().max() == nodes.levels.max() and len(ax.figure.axes) == 2
    lengths = np.ptp(np.array(lines.get_segments()), axis=1).max(axis=1)
    finest = lengths[lines.get_array() == nodes.levels.max()].max()
    assert finest < 0.2 * lengths[lines.get_array() == 0].min()

    ax = adapted.plot("cells", "value", vmin=-1.0, vmax=2.0, cmap="magma", colorbar=False)
    cells = ax.collections[0]
    assert len(cells.get_paths()) == len(nodes) and cells.get_clim() == (-1.0, 2.0)
    np.testing.assert_array_equal(cells.get_array(), nodes.data[:, 0])
    assert cells.get_cmap().name == "magma" and len(ax.figure.axes) == 1

    assert adapted.plot("cells", "black", ax=ax) is ax and len(ax.collections) == 2
    assert len(adapted.plot("links", None).figure.axes) == 1
    field = adapted.plot("field", np.hypot(nodes.x, nodes.y))
    assert field.collections[0].get_array().max() == pytest.approx(np.hypot(2.0, 1.0))
    field.figure.canvas.draw()

    # Frame after frame on the same Axes: one colour bar, of what was drawn last.
    ax = adapted.plot("links")
    whole = [float(tick) for tick in ax.figure.axes[1].get_yticks()]
    assert whole == [round(tick) for tick in whole] and len(whole) > 1
    nodes.write_data(nodes.x, column=1)
    nodes = adapted.nodes
    for component in (0, 1):
        ax.clear()
        adapted.plot("cells", "value", ax=ax, component=component, ticks=[0.0, 0.5])
        ax.figure.canvas.draw()
        _, bar = ax.figure.axes
        np.testing.assert_array_equal(ax.collections[0].get_array(), nodes.data[:, component])
        assert list(bar.get_yticks()) == [0.0, 0.5]
        assert bar.get_ylim() == pytest.approx((nodes.data[:, component].min(),
                                                nodes.data[:, component].max()))

    for wrong, text in ((dict(what="nodes"), "'links', 'cells' or 'field'"),
                        (dict(colour="value", component=2), "2 data values, 0 to 1"),
                        (dict(what="field", colour="red"), "give values"),
                        (dict(colour=np.ones(3)), r"shape \(3,\)")):
        with pytest.raises(ValueError, match=text):
            adapted.plot(**wrong)


def test_files_hold_nodes_and_data(adapted, tmp_path):
    adapted.write_vtu(tmp_path / "mesh.vtu", data_names=["u", "source"], ascii=True, time=2.5)
    read = meshio.read(tmp_path / "mesh.vtu")
    nodes = adapted.nodes
    np.testing.assert_array_equal(read.points[:, :2], nodes.positions)
    np.testing.assert_array_equal(read.point_data["u"], nodes.data[:, 0])
    np.testing.assert_array_equal(read.cells_dict["triangle"], nodes.triangles)
    assert read.field_data["TimeValue"] == [2.5]
    velmar_2d.write_pvd(tmp_path / "series.pvd", [(2.5, tmp_path / "mesh.vtu")])
    assert 'timestep="2.5" part="0" file="mesh.vtu"' in (tmp_path / "series.pvd").read_text()
    with pytest.raises(OSError, match="not a number"):
        velmar_2d.write_pvd(tmp_path / "series.pvd", [(np.nan, "mesh.vtu")])
    adapted.write_vtu(str(tmp_path / "cells.vtu"), cells="control_cells")
    assert (tmp_path / "cells.vtu").stat().st_size > 1000
    with pytest.raises(OSError, match="no_such_folder"):
        adapted.write_vtu(tmp_path / "no_such_folder" / "mesh.vtu")
    with pytest.raises(ValueError, match="'triangles' or 'control_cells'"):
        adapted.write_vtu(tmp_path / "mesh.vtu", cells="squares")


def test_laplacian_conserves_and_is_exact_for_planes(adapted):
    nodes = adapted.nodes
    per_cell = adapted.to_scipy_laplacian(per_area=False)
    assert per_cell.shape == (len(nodes),) * 2 and per_cell.format == "csr"
    assert abs(per_cell - per_cell.T).max() == 0.0
    np.testing.assert_allclose(per_cell @ np.ones(len(nodes)), 0.0, atol=1e-12)
    plane = 3.0 * nodes.x - 2.0 * nodes.y
    laplacian = adapted.to_scipy_laplacian()
    inside = nodes.on_boundary == 0
    np.testing.assert_allclose((laplacian @ plane)[inside], 0.0, atol=1e-8)
    np.testing.assert_allclose(laplacian.multiply(nodes.areas[:, None]).toarray(),
                               per_cell.toarray(), atol=1e-12)
    # A wall that lets nothing through keeps what is on each side of it.
    conductivity = np.where(np.abs(nodes.x - 1.0) < 0.2, 0.0, 2.0)
    walled = adapted.to_scipy_laplacian(conductivity, per_area=False)
    west = (nodes.x < 1.0).astype(float)
    np.testing.assert_allclose(walled @ west, 0.0, atol=1e-12)
    assert (adapted.to_scipy_laplacian(3.0) != 3.0 * laplacian).nnz == 0 or \
        abs(adapted.to_scipy_laplacian(3.0) - 3.0 * laplacian).max() < 1e-9
    for wrong in (np.ones(3), -1.0, np.full(len(nodes), np.nan)):
        with pytest.raises(ValueError, match="conductivity"):
            adapted.to_scipy_laplacian(wrong)


def test_laplacian_converges():
    errors = []
    for spacing in (0.05, 0.025, 0.0125):
        with Mesh(nx=11, subdiv_max=12) as mesh:
            for _ in range(3):
                mesh.update(lambda x, *_: np.where(x < 0.5, spacing, 2.0 * spacing))
            nodes, matrix = mesh.nodes, mesh.to_scipy_laplacian(per_area=False)
            exact = np.cos(np.pi * nodes.x) * np.cos(2.0 * np.pi * nodes.y)
            from scipy.sparse.linalg import spsolve
            from scipy.sparse import diags
            source = (1.0 + 5.0 * np.pi**2) * exact * nodes.areas
            solved = spsolve((diags(nodes.areas) - matrix).tocsc(), source)
            errors.append(np.sqrt(np.sum(nodes.areas * (solved - exact)**2)))
    assert errors[0] / errors[1] > 3.0 and errors[1] / errors[2] > 3.0


def public_parts():
    for name in velmar_2d.__all__:
        part = getattr(velmar_2d, name)
        if inspect.isclass(part):
            yield name, part
            for member, value in vars(part).items():
                if not member.startswith("_") and (callable(value) or isinstance(value, property)):
                    yield f"{name}.{member}", value
        elif callable(part):
            yield name, part


def test_everything_public_is_documented():
    missing = [name for name, part in public_parts() if not (part.__doc__ or "").strip()]
    assert missing == []


def test_stubs_declare_what_is_there():
    folder = pathlib.Path(velmar_2d.__file__).parent
    assert (folder / "py.typed").exists()

    def compare(declarations, there):
        declared = {getattr(d, "name", None) or d.target.id: d for d in declarations
                    if isinstance(d, (ast.FunctionDef, ast.ClassDef, ast.AnnAssign))}
        assert set(declared) == {name for name in vars(there) if not name.startswith("_")}
        for name, declaration in declared.items():
            if isinstance(declaration, ast.ClassDef):
                compare(declaration.body, getattr(there, name))
            if not isinstance(declaration, ast.FunctionDef):
                continue
            signature = getattr(there, name).__doc__.split("\n")[0]
            inside = signature[signature.index("(") + 1:signature.rindex(") ->")]
            taken = re.findall(r"(\w+): ", inside)
            arguments = [a.arg for a in declaration.args.args]
            # Those without a name are self, or all there are.
            assert len(taken) == len(arguments), signature
            assert all(t in (a, "self", "arg0") for t, a in zip(taken, arguments)), signature

    compare(ast.parse((folder / "_core.pyi").read_text()).body, _core)


def test_modules_import_one_another_in_one_direction_only():
    folder = pathlib.Path(velmar_2d.__file__).parent
    imports = {}
    for file in folder.glob("*.py"):
        found = imports[file.stem] = set()
        for node in ast.walk(ast.parse(file.read_text())):
            if isinstance(node, ast.ImportFrom) and node.level == 1:
                found.update([node.module] if node.module else [a.name for a in node.names])
            elif isinstance(node, (ast.Import, ast.ImportFrom)):
                names = [node.module] if isinstance(node, ast.ImportFrom) else [a.name for a in node.names]
                assert not any(name.startswith("velmar_2d") for name in names), file
    assert len(imports["mesh"]) >= 4
    order = []
    with contextlib.suppress(graphlib.CycleError):
        order = list(graphlib.TopologicalSorter(imports).static_order())
    assert order, imports
    not_imported = set(imports).difference(*imports.values())
    assert not_imported == {"__init__", "mpi"}.intersection(imports), imports
