#!/usr/bin/env python3
"""Runs every side on every front, and writes what came of it as comma-separated values.

    run.py FOLDER_OF_PROGRAMS RESULTS [--fronts 50,200,1000] [--sides ours,p4est,...]
           [--pictures FOLDER]

Short runs are repeated, and their median is taken by whoever reads the results.
"""
import argparse
import os
import subprocess
import sys

HEAD = ("side,parts,cells,step,every,steps,unknowns,seconds,processor_seconds,adapting,share,"
        "megabytes,largest,l2\n")

# What each side is told besides the front and the finest cells; chosen by trying, see
# docs/solvers.md.
SIDES = {
    "ours": ("velmar_2d_solver_ours", ["step=0.7", "every=2.5", "reach=6.5"]),
    "ours_once": ("velmar_2d_solver_ours", ["step=1", "every=2.5", "reach=6.5", "sums=1"]),
    "ours_implicit": ("velmar_2d_solver_ours", ["step=1", "every=2.5", "reach=6.5"]),
    "uniform": ("velmar_2d_solver_uniform", ["step=0.7", "patience=40"]),
    "p4est": ("velmar_2d_solver_quadtree", ["step=0.7", "every=2.5", "reach=8"]),
    "deal.II": ("velmar_2d_solver_finite_elements", ["step=1", "every=2", "reach=6"]),
}

# Finest cells along the strip.
EXPLICIT = {50: [192, 256, 320, 384], 200: [1024, 1280, 1536, 2048], 1000: [4096, 6144, 8192]}
CELLS = {
    "ours": EXPLICIT,
    "ours_once": {50: [256, 512, 1024], 200: [1024, 2048, 4096], 1000: [6144, 8192, 12288]},
    "ours_implicit": {50: [256, 512, 1024], 200: [1024, 2048], 1000: [6144, 8192]},
    "uniform": EXPLICIT | {1000: [4096, 6144]},
    # Spacings that need few trees only: each of them costs.
    "p4est": {50: [192, 256, 384], 200: [1024, 1536, 2048], 1000: [4096, 8192]},
    "deal.II": {50: [256, 512, 1024], 200: [1024, 1536, 2048], 1000: [6144, 8192]},
}

LONG = 1.0  # seconds of the processor from which a run is not repeated


def run(folder, side, parts, cells, more=()):
    program, options = SIDES[side]
    command = [os.path.join(folder, program), side, str(parts), str(cells), *options, *more]
    environment = os.environ | {"OMPI_MCA_btl": "self", "OMPI_ALLOW_RUN_AS_ROOT": "1",
                                "OMPI_ALLOW_RUN_AS_ROOT_CONFIRM": "1"}
    done = subprocess.run(command, stdout=subprocess.PIPE, text=True, env=environment)
    if done.returncode != 0:
        sys.exit(f"{' '.join(command)} ended with {done.returncode}")
    return done.stdout


def machine():
    with open("/proc/cpuinfo") as file:
        model = next(line.split(":")[1].strip() for line in file if line.startswith("model name"))
    packages = {"g++": "g++", "p4est": "libp4est-dev", "deal.II": "libdeal.ii-dev",
                "Eigen": "libeigen3-dev"}
    versions = [name + " " + subprocess.run(
        ["dpkg-query", "-W", "-f", "${Version}", package], stdout=subprocess.PIPE, text=True,
        check=True).stdout.split(":")[-1].split("-")[0].split("+")[0] for name, package in packages.items()]
    return f"{model}; {', '.join(versions)}"


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("folder")
    parser.add_argument("results")
    parser.add_argument("--fronts", default="50,200,1000")
    parser.add_argument("--sides", default=",".join(SIDES))
    parser.add_argument("--pictures", help="folder for the cells at the end of the coarsest runs")
    arguments = parser.parse_args()

    with open(arguments.results, "w") as results:
        results.write(f"# {machine()}\n{HEAD}")
        for parts in map(int, arguments.fronts.split(",")):
            for side in arguments.sides.split(","):
                for cells in CELLS[side][parts]:
                    print(f"{side}, front 1/{parts}, cells 1/{cells} ...", file=sys.stderr,
                          flush=True)
                    for _ in range(3):
                        line = run(arguments.folder, side, parts, cells)
                        results.write(line)
                        results.flush()
                        if float(line.split(",")[8]) > LONG:
                            break
    if arguments.pictures:
        os.makedirs(arguments.pictures, exist_ok=True)
        for side in ["ours", "uniform", "p4est", "deal.II"]:
            run(arguments.folder, side, 50, 256,
                [f"picture={os.path.join(arguments.pictures, side)}"])


if __name__ == "__main__":
    main()
