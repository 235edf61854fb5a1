"""What goes wrong is said in full, leaves a whole mesh, and stops nobody."""
import logging
import subprocess
import sys
import textwrap
import threading

import numpy as np
import pytest

import velmar_2d
from velmar_2d import Mesh, MeshError


def refused(text, **options):
    with pytest.raises(MeshError) as error:
        Mesh(**options)
    assert text in str(error.value)
    assert velmar_2d.current() is None


def test_fatal_messages_arrive_whole_and_the_next_mesh_can_be_made():
    refused("(velmar_2D/init_mesh:) ERROR: bad arg 'nx' or 'ny'\n"
            "                       mesh must have at least four elements !", nx=1, ny=5)
    refused("interval width must be positive!", rectangle=(1, 0, 0, 1), ny=3)
    refused("interval width must be positive!", rectangle=(0, np.nan, 0, 1))
    refused("arg 'subdiv_max' < 0 !", subdiv_max=-1)
    with Mesh(nx=5) as mesh:
        assert len(mesh) == 25 and mesh.check() == []
    # Second derivatives need more than two rows: found out in the middle of an update.
    with Mesh(nx=2, ny=2) as mesh:
        with pytest.raises(MeshError, match="compute_data_at_node: internal error"):
            mesh.update(0.1)
        assert mesh.check() == []


def test_one_mesh_at_a_time():
    mesh = Mesh(nx=3)
    assert velmar_2d.current() is mesh
    with pytest.raises(MeshError, match="one at a time"):
        Mesh(nx=4)
    assert len(mesh) == 9
    mesh.delete()
    mesh.delete()
    assert velmar_2d.current() is None and "deleted" in repr(mesh)
    for use in (lambda: len(mesh), lambda: mesh.nodes, lambda: mesh.update(1.0), mesh.check,
                lambda: mesh.subdiv_max, mesh.gradient, lambda: mesh.write_vtu("x.vtu")):
        with pytest.raises(MeshError, match="deleted"):
            use()
    mesh = Mesh(nx=4)  # letting go of a mesh deletes it
    del mesh
    assert len(Mesh(nx=3)) == 9


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


def test_callables_and_threads_cannot_come_back_in():
    with Mesh(nx=5, subdiv_max=8) as mesh:
        mesh.nodes.positions
        for intrude in (lambda: mesh.update(1.0), lambda: mesh.nodes.links, mesh.delete, mesh.check,
                        lambda: mesh.nodes.write_data(np.zeros(25)), mesh.gradient):
            def size(x, *_):
                intrude()
                return 0.1 + 0.0 * x
            with pytest.raises(MeshError, match="in use"):
                mesh.update(size)
            assert len(mesh) == 25

        caught = []

        def from_elsewhere():
            try:
                mesh.update(0.1)
            except MeshError as error:
                caught.append(str(error))

        def waiting(*_):
            thread = threading.Thread(target=from_elsewhere)
            thread.start()
            thread.join()
            return 0.1
        mesh.update(waiting)
        assert caught and all("another thread" in text for text in caught)
        assert mesh.check() == []


def test_messages_go_to_logging_and_nothing_waits(caplog, capfd):
    caplog.set_level(logging.INFO, logger="velmar_2d")
    with Mesh((0, 4, 0, 3), nx=5, ny=5) as mesh:
        assert mesh.rectangle == (0.0, 4.0, 0.0, 4.0)
        with pytest.raises(MeshError):
            Mesh(nx=3)
    moved = [r for r in caplog.records if "squared" in r.message or "new y_max = 4" in r.message]
    assert len(moved) == 2 and all(r.levelno == logging.WARNING for r in moved)
    assert caplog.records[-1].getMessage() == " nb of deallocated nodes: 25"
    assert caplog.records[-1].levelno == logging.INFO
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
