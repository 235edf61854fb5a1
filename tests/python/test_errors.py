"""What goes wrong is said in full, leaves a whole mesh, and stops nobody."""
import logging
import math
import os
import resource
import subprocess
import sys
import textwrap

import numpy as np
import pytest

import velmar_2d
from velmar_2d import Mesh, MeshError


def refused(text, **options):
    with pytest.raises(MeshError) as error:
        Mesh(**options)
    assert text in str(error.value)


def test_mistakes_are_refused_with_the_whole_text():
    refused("nx and ny must be at least 2, not 1 and 5", nx=1, ny=5)
    refused("must have a width and a height above 0", rectangle=(1, 0, 0, 1), ny=3)
    refused("must have a width and a height above 0", rectangle=(0, np.nan, 0, 1))
    refused("arg 'subdiv_max' < 0 !", subdiv_max=-1)
    refused("the height 3 is not 4 squares of width 1; 4 would be", rectangle=(0, 4, 0, 3), nx=5, ny=5)
    refused("a whole number of squares", rectangle=(0, 1, 0, 0.72), nx=5)
    with Mesh((0, 1, 0, 0.75), nx=5) as mesh:
        assert len(mesh) == 20 and mesh.check() == []
    # Second derivatives need more than two rows: found out in the middle of an update.
    with Mesh(nx=2, ny=2) as mesh:
        with pytest.raises(MeshError, match="compute_data_at_node: internal error"):
            mesh.update(0.1)
        assert mesh.check() == []


def test_grids_beyond_memory_or_numbers_are_refused_at_once():
    memory = os.sysconf("SC_PHYS_PAGES") * os.sysconf("SC_PAGE_SIZE")
    edge = math.isqrt(memory // 200) + 2  # a node alone takes more than 200 bytes
    before = resource.getrlimit(resource.RLIMIT_AS)
    with open("/proc/self/statm") as file:
        now = int(file.read().split()[0]) * os.sysconf("SC_PAGE_SIZE")
    resource.setrlimit(resource.RLIMIT_AS, (now + int(2e8), before[1]))  # who tries is stopped
    try:
        for options in (dict(nx=edge), dict(nx=edge, ny=edge), dict(nx=50_000), dict(nx=10**30),
                        dict(nx=9, n_cell_data=2**31 - 1), dict(rectangle=(0, 1, 0, 1e300))):
            refused("nodes", **options)
    finally:
        resource.setrlimit(resource.RLIMIT_AS, before)
    for absurd in (dict(subdiv_max=2**31), dict(n_cell_data=2**40)):
        with pytest.raises(ValueError, match="beyond any use"):
            Mesh(**absurd)


def test_a_deleted_mesh_refuses_everything():
    mesh = Mesh(nx=3)
    mesh.delete()
    mesh.delete()
    assert not mesh.is_alive and "deleted" in repr(mesh)
    for use in (lambda: len(mesh), lambda: mesh.nodes, lambda: mesh.update(1.0), mesh.check,
                lambda: mesh.subdiv_max, mesh.gradient, lambda: mesh.write_vtu("x.vtu"),
                mesh.__enter__, lambda: setattr(mesh, "subdiv_max", 3)):
        with pytest.raises(MeshError, match="deleted"):
            use()


@pytest.mark.parametrize("vectorised", [True, False])
def test_exceptions_of_callables_pass_through(vectorised):
    def failing(after, result):
        calls = iter(range(after))

        def function(*_):
            if next(calls, None) is None:
                raise KeyError("mine")
            return result
        return function

    with pytest.raises(KeyError, match="mine"):
        Mesh(nx=5, bc_type=failing(2, 0), vectorised=vectorised)
    for after in (0, 2, 5):
        with Mesh(nx=5, subdiv_max=8) as mesh:
            with pytest.raises(KeyError, match="mine"):
                mesh.update(failing(after, 0.01), vectorised=vectorised)
            assert mesh.check() == []
            with pytest.raises(KeyError, match="mine"):
                mesh.update(lambda *_: 0.005, failing(after, 1.0), init_vectorised=vectorised)
            assert mesh.check() == [] and len(mesh) >= 25
            mesh.update(1.0)
            assert len(mesh) == 25 and mesh.nodes.areas.sum() == pytest.approx(1.0)


def test_results_of_callables_are_checked():
    with Mesh(nx=3, ny=3, subdiv_max=4) as mesh:
        for result, error, text in (
                (np.ones(4), ValueError, r"size returned an array of shape \(4,\) for 9 places"),
                (np.ones((9, 1)), ValueError, r"size returned an array of shape \(9, 1\)"),
                (None, TypeError, "size returned an array of dtype object"),
                ("wide", TypeError, "size returned"), (1j, TypeError, "complex128")):
            with pytest.raises(error, match=text):
                mesh.update(lambda *_: result)
        with pytest.raises(ValueError, match=r"init_data returned an array of shape \(2, 2\)"):
            mesh.update(0.1, lambda x, y: np.ones((2, 2)))
        with pytest.raises(ValueError, match="for 1 places"):
            mesh.update(lambda *_: [0.1, 0.2], vectorised=False)
        for wrong in ("0.1", None, [0.1]):
            with pytest.raises(TypeError, match="size must be callable"):
                mesh.update(wrong)
        with pytest.raises(TypeError, match="init_data must be callable"):
            mesh.update(0.1, 3.0)
        assert len(mesh) == 9 or mesh.check() == []
    for bc_type, error, text in (
            (lambda x, y, side: 3, ValueError, "bc_type returned the kind 3"),
            (lambda x, y, side: 0.5, TypeError, "bc_type returned an array of dtype float64"),
            ("robin", ValueError, "'robin' is no kind"), (7, ValueError, "7 is no kind"),
            ({"up": 0}, ValueError, "'up' is no side")):
        with pytest.raises(error, match=text):
            Mesh(nx=3, bc_type=bc_type)
    for options, error in (({"rectangle": (0, 1, 2)}, ValueError), ({"nx": 3.5}, TypeError),
                           ({"n_cell_data": -1}, ValueError), ({"subdiv_max": "many"}, TypeError)):
        with pytest.raises(error):
            Mesh(**options)


def _kinds(x, meshes):
    if meshes:
        meshes[0].update(1.0)
    return np.zeros(len(x), int)


def test_callables_cannot_come_back_in():
    with Mesh(nx=5, subdiv_max=8) as mesh:
        mesh.nodes.positions
        for intrude in (lambda: mesh.update(1.0), lambda: mesh.nodes.links, mesh.delete, mesh.check,
                        lambda: mesh.nodes.write_data(np.zeros(25)), mesh.gradient,
                        lambda: mesh.resolve(1.0), lambda: setattr(mesh, "subdiv_max", 2)):
            def size(x, *_):
                intrude()
                return 0.1 + 0.0 * x
            for adapt in (mesh.update, mesh.resolve):
                with pytest.raises(MeshError, match="in use"):
                    adapt(size)
                assert len(mesh) == 25
                with pytest.raises(MeshError, match="in use"):
                    adapt(0.1, lambda x, y: (intrude(), x)[1])
                assert mesh.check() == []
                mesh.resolve(1.0)
    meshes = []
    with Mesh(nx=5, bc_type=lambda x, y, side: _kinds(x, meshes)) as mesh:
        meshes.append(mesh)
        with pytest.raises(MeshError, match="in use"):
            mesh.resolve(0.1)
        assert mesh.check() == []


def test_warnings_go_to_logging_and_nothing_waits(caplog, capfd):
    caplog.set_level(logging.INFO, logger="velmar_2d")
    with Mesh(nx=3, subdiv_max=0):
        pass
    with pytest.raises(MeshError):
        Mesh(nx=1)
    assert [r.levelno for r in caplog.records] == [logging.WARNING]
    assert "cannot be refined" in caplog.records[0].getMessage()
    assert capfd.readouterr() == ("", "")


def run(code):
    return subprocess.run([sys.executable, "-c", textwrap.dedent(code)], capture_output=True,
                          text=True, stdin=subprocess.DEVNULL, timeout=60)


@pytest.mark.parametrize("end", ["pass", "sys.exit(0)", "mesh.update(lambda *_: sys.exit(0))",
                                 "velmar_2d.Keep = mesh.nodes"])
def test_the_interpreter_ends_in_peace(end):
    done = run(f"""
        import sys, velmar_2d
        class Kind:
            def __call__(self, x, y, side): return 0
            def __del__(self): print("let go")
        mesh = velmar_2d.Mesh(nx=5, bc_type=Kind())
        mesh.update(lambda *_: 0.1, lambda x, y: x)
        {end}
        """)
    assert (done.returncode, done.stdout, done.stderr) == (0, "let go\n", "")


def test_memory_that_runs_out_is_an_error():
    done = run("""
        import resource, numpy, velmar_2d
        mesh = velmar_2d.Mesh(nx=9, subdiv_max=24)
        mesh.update(0.05)
        resource.setrlimit(resource.RLIMIT_AS, (int(7e8), -1))
        try:
            mesh.update(1e-6, vectorised=True)
        except (velmar_2d.MeshError, MemoryError) as error:
            print(type(error).__name__)
        resource.setrlimit(resource.RLIMIT_AS, (-1, -1))
        mesh.delete()
        with velmar_2d.Mesh(nx=5) as mesh:
            mesh.update(0.1)
            print(mesh.check())
        """)
    assert done.returncode == 0, done.stderr
    assert done.stdout.splitlines()[0] in ("MeshError", "MemoryError")
    assert done.stdout.splitlines()[1] == "[]"
