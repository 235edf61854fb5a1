"""Matrices of finite volumes on the control cells."""
from __future__ import annotations

from typing import Any

import numpy as np

from .nodes import Nodes


def laplacian(nodes: Nodes, conductivity: Any, per_area: bool) -> Any:
    """See Mesh.to_scipy_laplacian()."""
    try:
        from scipy import sparse
    except ImportError as error:
        raise ImportError("to_scipy_laplacian() needs scipy (Debian: python3-scipy)") from error
    faces, n = nodes.faces, len(nodes)
    inner = faces.inner
    a, b = faces.a[inner], faces.b[inner]
    weight = faces.length[inner] / faces.distance[inner]
    if conductivity is not None:
        k = np.asarray(conductivity, dtype=np.float64)
        if k.shape not in ((), (n,)):
            raise ValueError(f"conductivity has shape {k.shape}; "
                             f"{n} nodes need ({n},) or one number")
        if not np.all(k >= 0.0):
            raise ValueError("conductivity must not be negative")
        k = np.broadcast_to(k, (n,))
        total = k[a] + k[b]
        weight = weight * np.divide(2.0 * k[a] * k[b], total, out=np.zeros_like(weight),
                                    where=total > 0.0)
    outflow = np.bincount(a, weight, n) + np.bincount(b, weight, n)
    own = np.arange(n)
    matrix = sparse.csr_matrix(
        (np.concatenate((weight, weight, -outflow)),
         (np.concatenate((a, b, own)), np.concatenate((b, a, own)))), shape=(n, n))
    return sparse.diags(1.0 / nodes.areas) @ matrix if per_area else matrix
