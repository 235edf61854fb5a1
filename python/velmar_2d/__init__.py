"""A node-based adaptive mesh of a rectangle, with its nodes as numpy arrays.

    import numpy as np
    import velmar_2d

    def size(x, y, data, grad, grad2):            # numpy arrays: many nodes at once
        return 0.005 + 0.1 * np.abs(np.hypot(x - 0.5, y - 0.5) - 0.3)

    with velmar_2d.Mesh(rectangle=(0, 1, 0, 1), nx=17, subdiv_max=10) as mesh:
        mesh.resolve(size)
        print(len(mesh), mesh.nodes.positions, mesh.nodes.links)

Any number of meshes live side by side. Warnings of the library go to the logger "velmar_2d",
mistakes are raised as MeshError, and nothing waits for a key.
"""
from . import numerics
from ._core import MeshError, version as _version
from .links import DIRICHLET, NEUMANN, NO_LINK, OTHER, SIDES, kind_of, side_code, side_of
from .mesh import Finding, Mesh, UpdateStatistics, save_meshes
from .nodes import Faces, Nodes, Polygons
from .paraview import write_pvd
from .places import LineCut
from .saving import SavedMesh, load_arrays, saved_meshes

__version__ = _version()

__all__ = [
    "DIRICHLET", "NEUMANN", "OTHER", "NO_LINK", "SIDES",
    "Faces", "Finding", "LineCut", "Mesh", "MeshError", "Nodes", "Polygons", "SavedMesh",
    "UpdateStatistics", "kind_of", "load_arrays", "numerics", "save_meshes", "saved_meshes", "side_code",
    "side_of", "write_pvd",
]
