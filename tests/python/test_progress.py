"""Long updates tell how far they are, and can be left."""
import os
import signal
import threading
import time

import numpy as np
import pytest

from velmar_2d import Mesh


def near_arc(x, y, *_):
    return 0.002 + 0.1 * np.abs(np.hypot(x, y) - 0.7)


def test_phases_are_told():
    with Mesh(nx=17, subdiv_max=12) as mesh:
        told = []

        def tell(phase, done, known):
            assert 0 <= done and 0 < known
            told.append(phase)

        mesh.resolve(near_arc, progress=tell)
        mesh.update(near_arc, progress=tell)
        assert set(told) <= {"restoring", "derivatives", "refining", "coarsening"}
        assert "refining" in told


def test_an_update_can_be_left():
    class Enough(Exception):
        pass

    def stop(*_):
        raise Enough

    with Mesh(nx=17, subdiv_max=12) as mesh:
        for adapt in mesh.resolve, mesh.update:
            time.sleep(0.1)  # it is told no more often
            with pytest.raises(Enough):
                adapt(near_arc, progress=stop)
            assert mesh.check() == []
        mesh.resolve(near_arc)
        assert mesh.resolve(near_arc).inserted == 0


def test_interrupts_are_heeded():
    """While other threads may run, Python itself does not look for signals."""
    with Mesh(nx=17, subdiv_max=12) as mesh:
        mesh.resolve(near_arc)
        timer = threading.Timer(0.2, os.kill, (os.getpid(), signal.SIGINT))
        timer.start()
        with pytest.raises(KeyboardInterrupt):
            while True:
                mesh.update(near_arc)
        timer.join()
        assert mesh.check() == []


@pytest.mark.parametrize("has_tqdm", (False, True))
def test_progress_is_shown(monkeypatch, capsys, has_tqdm):
    """Without tqdm as lines; with it as its bars, here those of a stand-in."""
    import sys
    import types

    class Bar:
        def __init__(self, total, desc, **_):
            self.total, self.n = total, 0
            print(f"{desc} of {total}", file=sys.stderr)

        def update(self, more):
            self.n += more

        def close(self):
            print("closed", file=sys.stderr)

    auto = types.ModuleType("tqdm.auto")
    auto.tqdm = Bar
    monkeypatch.setitem(sys.modules, "tqdm", types.ModuleType("tqdm"))
    monkeypatch.setitem(sys.modules, "tqdm.auto", auto if has_tqdm else None)
    with Mesh(nx=17, subdiv_max=12) as mesh:
        mesh.resolve(near_arc, progress=True)
    shown = capsys.readouterr().err
    assert "refining" in shown
    assert ("closed" in shown) == has_tqdm
