"""Runs a program on several numbers of processes, and compares the files for ParaView with VTK.

    compare_parts.py FOLDER TOLERANCE PROCESSES OUTPUT COMMAND...

PROCESSES is a list such as 1,2,4. In COMMAND, {n} stands for the number of processes and {folder} for
where the files of this run go. Each .pvtu file of a run must hold the mesh that the file of the same
name holds on one process, .pvtu or .vtu: the same points, cells and values, to the last bit but for
`u`, which may differ by TOLERANCE. The regular expression OUTPUT must be found in what each run prints,
and be the same text in all.
"""
import os
import re
import shutil
import subprocess
import sys

import numpy
from scipy.spatial import cKDTree
from vtkmodules.util.numpy_support import vtk_to_numpy
from vtkmodules.vtkIOXML import vtkXMLPUnstructuredGridReader, vtkXMLUnstructuredGridReader

current = ""


def check(condition, what):
    if not condition:
        sys.exit(f"{current}: {what}")


def read(name):
    reader = (vtkXMLPUnstructuredGridReader if name.endswith(".pvtu")
              else vtkXMLUnstructuredGridReader)()
    reader.SetFileName(name)
    reader.Update()
    return reader.GetOutput()


def arrays_of(attributes):
    return {attributes.GetArrayName(i): vtk_to_numpy(attributes.GetArray(i))
            for i in range(attributes.GetNumberOfArrays())}


def check_values(values, order, wanted, wanted_order, tolerance):
    """All arrays but id, in an order that both share."""
    check(values.keys() == wanted.keys(), f"arrays: {sorted(values)}, wanted: {sorted(wanted)}")
    for name in sorted(set(values) - {"id"}):
        a, b = values[name][order], wanted[name][wanted_order]
        check(a.dtype == b.dtype, f"type of {name}")
        if name == "u" and tolerance > 0.0:
            check(numpy.max(numpy.abs(a - b)) <= tolerance,
                  f"{name} differs by {numpy.max(numpy.abs(a - b))}")
        else:
            check(numpy.array_equal(a, b), f"{name} differs")


def check_points(mesh, whole, tolerance):
    """Each owned node once, those of others as their owners have them, the same triangles."""
    points, wanted_points = (vtk_to_numpy(of.GetPoints().GetData())[:, :2] for of in (mesh, whole))
    values, wanted = arrays_of(mesh.GetPointData()), arrays_of(whole.GetPointData())
    is_double = values.pop("vtkGhostType") == 1
    wanted_owned = numpy.flatnonzero(wanted.pop("vtkGhostType", numpy.zeros(len(wanted_points))) == 0)
    owned = numpy.flatnonzero(~is_double)
    check(len(owned) == len(wanted_owned), f"{len(owned)} nodes, wanted {len(wanted_owned)}")
    order = owned[numpy.lexsort(points[owned].T)]
    wanted_order = wanted_owned[numpy.lexsort(wanted_points[wanted_owned].T)]
    check(numpy.array_equal(points[order], wanted_points[wanted_order]), "positions differ")
    check_values(values, order, wanted, wanted_order, tolerance)
    ids = values["id"]
    check(numpy.array_equal(numpy.sort(ids[owned]), numpy.arange(len(owned))), "ids have gaps")

    owner_of = numpy.empty(len(owned), int)
    owner_of[ids[owned]] = owned
    double = numpy.flatnonzero(is_double)
    check(numpy.array_equal(points[double], points[owner_of[ids[double]]]), "a ghost has another's id")
    for name, of in values.items():
        check(numpy.array_equal(of[double], of[owner_of[ids[double]]]), f"{name} of ghosts")

    corners = vtk_to_numpy(mesh.GetCells().GetConnectivityArray()).reshape(-1, 3)
    wanted_corners = vtk_to_numpy(whole.GetCells().GetConnectivityArray()).reshape(-1, 3)
    check(numpy.array_equal(triangles_of(points[corners]), triangles_of(wanted_points[wanted_corners])),
          "triangles differ")
    return len(double)


def triangles_of(corners):
    """Sorted by their corners, of which the lowest comes first."""
    order = numpy.lexsort((corners[:, :, 0], corners[:, :, 1]), axis=1)
    corners = numpy.take_along_axis(corners, order[:, :, None], axis=1).reshape(len(corners), 6)
    return corners[numpy.lexsort(corners.T)]


def check_cells(mesh, whole, tolerance):
    """The same polygons around the same nodes. Corners may differ in their last bits."""
    middles = [numpy.array([numpy.mean(vtk_to_numpy(of.GetCell(i).GetPoints().GetData()), axis=0)
                            for i in range(of.GetNumberOfCells())]) for of in (mesh, whole)]
    check(len(middles[0]) == len(middles[1]), f"{len(middles[0])} cells, wanted {len(middles[1])}")
    distance, match = cKDTree(middles[1]).query(middles[0])
    check(numpy.max(distance) < 1e-12, "cells differ")
    check(len(set(match)) == len(match), "a cell is there twice")
    values, wanted = arrays_of(mesh.GetCellData()), arrays_of(whole.GetCellData())
    check_values(values, slice(None), wanted, match, tolerance)
    check(numpy.array_equal(numpy.sort(values["id"]), numpy.arange(len(match))), "ids have gaps")


folder, tolerance, counts, pattern, *command = sys.argv[1:]
shutil.rmtree(folder, ignore_errors=True)
printed = {}
for n in counts.split(","):
    current = f"{n} processes"
    place = f"{folder}/{n}"
    os.makedirs(place)
    run = subprocess.run([part.format(n=n, folder=place) for part in command],
                         stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True)
    print(run.stdout)
    check(run.returncode == 0, f"ended with status {run.returncode}")
    found = re.search(pattern, run.stdout)
    check(found, f"does not print {pattern}")
    printed[n] = found[0]
    check(printed[n] == printed["1"], f"{printed[n]}, on one process {printed['1']}")

nb_files = nb_doubles = 0
for n in counts.split(",")[1:]:
    for name in sorted(os.listdir(f"{folder}/{n}")):
        if not name.endswith(".pvtu"):
            continue
        current = f"{folder}/{n}/{name}"
        one = f"{folder}/1/{name}"
        mesh, whole = read(current), read(one if os.path.exists(one) else one.replace("pvtu", "vtu"))
        check(whole.GetNumberOfCells() > 0, f"nothing to compare with in {one}")
        if mesh.GetPointData().GetNumberOfArrays() > 0:
            nb_doubles += check_points(mesh, whole, float(tolerance))
        else:
            check_cells(mesh, whole, float(tolerance))
        nb_files += 1
check(nb_files > 0, "no .pvtu files")
current = folder
check(nb_doubles > 0, "no points are those of several processes")
print(f"{nb_files} files compared, with {nb_doubles} points that are there twice")
