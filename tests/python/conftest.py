"""What the tests share."""
import os

os.environ.setdefault("MPLBACKEND", "Agg")

import numpy as np
import pytest

import velmar_2d


def ring(x0, finest, coarsest, slope=0.2):
    """A vectorised size function that also takes single numbers."""
    def size(x, y, data, grad, grad2):
        return np.clip(slope * np.abs(np.hypot(x - x0, y - 0.5) - 0.3), finest, coarsest)
    return size


@pytest.fixture
def adapted():
    """A mesh with all kinds of sides and two data values."""
    mesh = velmar_2d.Mesh((0, 2, 0, 1), nx=17, subdiv_max=9, n_cell_data=2,
                          bc_type={"east": "neumann", "South": velmar_2d.OTHER})
    mesh.update(ring(0.7, 0.01, 0.125), lambda x, y: x * x - y)
    return mesh


@pytest.fixture
def sizes():
    return ring
