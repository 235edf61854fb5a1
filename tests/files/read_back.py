"""Reads .vtu files back with meshio and compares them with tables of the same meshes.

    read_back.py WRITE_SAMPLE_FILES FOLDER
"""
import collections
import glob
import os
import shutil
import subprocess
import sys
import xml.etree.ElementTree

import meshio
import numpy

NAMES = ["id", "level", "ipos", "on_boundary", "area", "grad_data", "grad2_data", "first", "data_2"]


def check(condition, what):
    if not condition:
        sys.exit(f"{current}: {what}")


def doubled_area(corners):
    x, y = corners[:, 0], corners[:, 1]
    return numpy.dot(x - x[0], numpy.roll(y, -1) - numpy.roll(y, 1))


def read_table(name):
    with open(name) as file:
        sides = [float(side) for side in file.readline().split()]
        return sides, numpy.array([line.split() for line in file], float)


def check_values(values, table):
    check(len(values) == table.shape[1] - 2, f"arrays: {sorted(values)}")
    for column, name in enumerate(NAMES[:len(values)]):
        written, wanted = values[name], table[:, column + 2]
        if name == "area":
            check(numpy.allclose(written, wanted, rtol=1e-6, atol=0), "areas differ")
        else:
            check(numpy.array_equal(written, wanted), f"{name} differs")
            wanted_type = "int64" if name == "id" else "int32" if column < 4 else "float64"
            check(written.dtype == wanted_type, f"type of {name}")


def check_cells(points, cells, sides):
    """The cells fill the rectangle, turn left, and share their edges whole: no crack, no overlap."""
    west, east, south, north = sides
    size = max(east - west, north - south)
    sharp = 1e-9 * size + 1e-12 * max(abs(side) for side in sides)
    edges = collections.Counter()
    total = 0.0
    for cell in cells:
        corners = points[cell]
        area = doubled_area(corners)
        check(area > 0, f"cell {cell} is flat or turns right: {corners}")
        total += area / 2
        edges.update(zip(cell, numpy.roll(cell, -1)))
    check(abs(total / ((east - west) * (north - south)) - 1) < 1e-8, f"area {total} in all")
    for (a, b), count in edges.items():
        check(count == 1, f"edge {points[a]} {points[b]} used {count} times")
        if (b, a) not in edges:
            on_side = [abs(points[a][axis] - side) + abs(points[b][axis] - side) < sharp
                       for axis, side in ((0, west), (0, east), (1, south), (1, north))]
            check(any(on_side), f"crack along {points[a]} {points[b]}")
    check(len({corner for cell in cells for corner in cell}) == len(points), "points without cell")


def cells_of(mesh):
    """All cells with their values, in the order of the file."""
    return [cell for block in mesh.cells for cell in block.data]


def check_file(name, table_name):
    global current
    current = name
    sides, table = read_table(table_name)
    mesh = meshio.read(name)
    check(not mesh.points[:, 2].any(), "points off the plane")
    points = mesh.points[:, :2]
    cells = cells_of(mesh)
    check_cells(points, cells, sides)
    seed = int(os.path.basename(name).split("_")[1])
    times = {key: list(value) for key, value in mesh.field_data.items()}
    check(times == ({} if "cells" in name else {"TimeValue": [0.1 * seed]}), f"times: {times}")
    if "cells" in os.path.basename(name):
        check(len(cells) == len(table), "one control cell for each node")
        values = {key: numpy.concatenate(blocks) for key, blocks in mesh.cell_data.items()}
        order, wanted = numpy.argsort(values["id"]), numpy.argsort(table[:, 2])
        check_values({key: value[order] for key, value in values.items()}, table[wanted])
        for cell, area in zip(cells, values["area"]):
            check(abs(doubled_area(points[cell]) / 2 / area - 1) < 1e-6, "a cell has another's area")
    else:
        check(numpy.array_equal(points, table[:, :2]), "positions differ")
        check({len(cell) for cell in cells} == {3}, "not all triangles")
        check_values(mesh.point_data, table)


program, folder = sys.argv[1:]
current = folder
shutil.rmtree(folder, ignore_errors=True)
os.makedirs(folder)
subprocess.run([program, folder], check=True, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL)
names = sorted(glob.glob(folder + "/*.vtu"))
for name in names:
    check_file(name, folder + "/mesh_" + os.path.basename(name).split("_")[1] + ".txt")
current = "all files"
check(len(names) == 72, f"{len(names)} files")

current = folder + "/series.pvd"
steps = xml.etree.ElementTree.parse(current).findall("Collection/DataSet")
check([(step.get("timestep"), step.get("file")) for step in steps] ==
      [("0", "mesh_0_cells.vtu"), ("0.1", "mesh_1_cells.vtu")], "steps differ")
print(f"{len(names)} files read back")
