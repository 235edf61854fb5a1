"""What the Python package costs beside the C++ library.

    cmake --preset bench -DVELMAR_2D_BUILD_PYTHON=ON && cmake --build --preset bench
    PYTHONPATH=build/bench/python /usr/bin/python3 benchmarks/python.py build/bench/benchmarks/velmar_2d_bench

Updates: the cases `ring`, `steady` and `front` of velmar_2d_bench, with the same functions written
in numpy; the second column is the C++ program's time for the same mesh. Both are the best of a few.
Arrays: every field of mesh.nodes, of about 10^6 nodes. Memory: 200 updates of a moving ring with all
arrays taken each time.
"""
import gc
import json
import logging
import math
import os
import subprocess
import sys
import time

import numpy as np

import velmar_2d

NODES, NX = 1_000_000, 33  # as in velmar_2d_bench, where "about" 10^6 is 1.5 * 10^6
ARRAY_NODES = 660_000  # which is 10^6
COARSEST = 1.0 / (NX - 1)
FIELDS = ("positions", "ids", "levels", "ipos", "on_boundary", "known", "links", "data", "grad",
          "grad2", "areas", "faces", "polygons")


def seconds(work):
    start = time.perf_counter()
    work()
    return time.perf_counter() - start


def make(nodes, values):
    levels = 2 * math.ceil(math.log2(COARSEST * nodes / 80.0)) + 1
    return velmar_2d.Mesh(nx=NX, subdiv_max=levels, n_cell_data=values)


def update(mesh, moment, nodes):
    x0 = 0.3 + 0.4 * moment

    def distance(x, y):
        return np.abs(np.hypot(x - x0, y - 0.5) - 0.3)

    def size(x, y, data, grad, grad2):
        return np.clip(0.1 * distance(x, y), 80.0 / nodes, COARSEST)

    def init_data(x, y):
        return np.tanh(20.0 * distance(x, y))

    mesh.update(size, init_data if mesh.n_cell_data else None)


def best_of(times, work, *arguments):
    return min(work(*arguments) for _ in range(times))


def ring(values):
    touch_memory()
    with make(NODES, values) as mesh:
        return seconds(lambda: [update(mesh, 0.5, NODES) for _ in range(3)])


def steady(values):
    with make(NODES, values) as mesh:
        for _ in range(3):
            update(mesh, 0.5, NODES)
        return best_of(5, seconds, lambda: update(mesh, 0.5, NODES))


def front(values):
    with make(NODES, values) as mesh:
        for _ in range(3):
            update(mesh, 0.0, NODES)
        return seconds(lambda: update(mesh, 1.0 / 50.0, NODES))


def cpp_milliseconds(program, case, values):
    name = f"^{case}/about:{NODES}/values:{values}/"
    found = subprocess.run([program, "--benchmark_filter=" + name, "--benchmark_repetitions=3",
                            "--benchmark_format=json"],
                           capture_output=True, check=True, text=True).stdout
    runs = json.loads(found[found.index("{"):])["benchmarks"]
    return min(run["real_time"] for run in runs if run["run_type"] == "iteration")


def compare_updates(program):
    print("update of about 10^6 nodes, ms    Python     C++   ratio")
    for case in (ring, steady, front):
        for values in (0, 1):
            mine = 1e3 * best_of(3, case, values)
            name = f"{case.__name__}, {values} data values"
            line = f"  {name:28s} {mine:9.0f}"
            if program:
                theirs = cpp_milliseconds(program, case.__name__, values)
                line += f" {theirs:7.0f} {mine / theirs:7.2f}"
            print(line, flush=True)


def time_arrays():
    with make(ARRAY_NODES, 1) as mesh:
        for _ in range(3):
            update(mesh, 0.5, ARRAY_NODES)
        gc.collect()
        touch_memory()
        print(f"arrays of {len(mesh)} nodes, ms")
        total = 0.0
        for field in FIELDS:
            taken = 1e3 * seconds(lambda: getattr(mesh.nodes, field))
            total += taken
            print(f"  {field:12s} {taken:7.1f}")
        print(f"  {'together':12s} {total:7.1f}", flush=True)


def resident_megabytes():
    with open("/proc/self/statm") as file:
        return int(file.read().split()[1]) * os.sysconf("SC_PAGE_SIZE") / 1e6


def watch_memory():
    about = 50_000
    with make(about, 1) as mesh:
        print(f"memory of the process over 200 updates of about {about} nodes, MB")
        for step in range(201):
            update(mesh, abs(math.remainder(step / 50.0, 2.0)), about)
            for field in FIELDS:
                getattr(mesh.nodes, field)
            if step % 50 == 0:
                print(f"  {step:4d} updates {resident_megabytes():8.1f}", flush=True)


def touch_memory():
    """Memory that lay idle is slow at its first touch: the system's business, not ours."""
    for _ in range(2):
        np.ones(2**27)


if __name__ == "__main__":
    logging.getLogger("velmar_2d").setLevel(logging.ERROR)
    time_arrays()
    watch_memory()
    compare_updates(sys.argv[1] if len(sys.argv) > 1 else None)
