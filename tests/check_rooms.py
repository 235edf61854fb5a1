"""Reads the includes of the library and fails on an arrow upwards.

    check_rooms.py FOLDER     the folder velmar_2D

Rooms lie above one another; each includes its own private header and those of the rooms below. The
records and types that users know lie below all of them, their two headers of procedures above.
"""
import pathlib
import re
import sys

ROOMS = ["base", "memory", "mesh", "cells", "arrays", "derivatives", "find", "adapt",
         "resolve", "check"]
BELOW_ALL = {"velmar_2D/records.hpp"}
INCLUDE = re.compile(r'^\s*#\s*include\s*"([^"]+)"', re.MULTILINE)


def faults_of(path, room, included):
    """What is wrong with an include of a file in a room."""
    if included in BELOW_ALL:
        return
    parts = included.split("/")
    if len(parts) != 3 or parts[0] != "velmar_2D" or parts[1] not in ROOMS:
        yield f"{path} includes {included}, which no room may"
    elif ROOMS.index(parts[1]) > ROOMS.index(room):
        yield f"{path} includes {included}: {parts[1]} lies above {room}"


def faults(folder):
    found, nb_files, nb_includes = [], 0, 0
    rooms = {path.name for path in folder.iterdir() if path.is_dir()}
    if rooms != set(ROOMS):
        found.append(f"rooms without a place in the order: {sorted(rooms ^ set(ROOMS))}")
    for room in ROOMS:
        headers = sorted(path.name for path in (folder / room).glob("*.hpp"))
        if len(headers) != 1:
            found.append(f"{room} has not one header but {headers}")
        for path in sorted((folder / room).rglob("*.[ch]pp")):
            nb_files += 1
            for included in INCLUDE.findall(path.read_text()):
                nb_includes += 1
                found += faults_of(path.relative_to(folder), room, included)
    for header, below in [("records.hpp", set()), ("mesh.hpp", BELOW_ALL),
                          ("velmar_2D.hpp", BELOW_ALL), ("arrays.hpp", {"velmar_2D/mesh.hpp"})]:
        for included in INCLUDE.findall((folder / header).read_text()):
            if included not in below:
                found.append(f"{header}, which users include, includes {included}")
    if nb_files < 2 * len(ROOMS) or nb_includes < nb_files:
        found.append(f"only {nb_files} files with {nb_includes} includes were read")
    return found


if __name__ == "__main__":
    FOUND = faults(pathlib.Path(sys.argv[1]))
    print("\n".join(FOUND))
    sys.exit(1 if FOUND else 0)
