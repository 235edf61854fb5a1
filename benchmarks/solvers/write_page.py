#!/usr/bin/env python3
"""Draws what run.py measured, prints it as tables and puts them into a page.

    write_page.py RESULTS PLOT_PROGRAM CELLS_PROGRAM CELLS_FOLDER PICTURES_FOLDER [PAGE]
                  [--processor]

--processor: with the processor's seconds instead of those of the clock, for a machine that has other
work to do.
"""
import csv
import math
import os
import statistics
import subprocess
import sys

sys.path.append(os.path.join(os.path.dirname(__file__), ".."))
from put_tables import put_tables

NAMES = {"ours": "this library", "ours_once": "this library, one sum",
         "ours_implicit": "this library, implicit",
         "uniform": "uniform grid", "p4est": "p4est", "deal.II": "deal.II"}
COLOURS = {"ours": "0.80 0.15 0.15", "ours_once": "0.95 0.65 0.10",
           "ours_implicit": "0.60 0.25 0.65", "uniform": "0.45 0.45 0.45", "p4est": "0.00 0.45 0.70", "deal.II": "0.10 0.55 0.25"}


class Run:
    """The median of one case's repetitions."""

    def __init__(self, rows, seconds):
        def median(name):
            return statistics.median(float(row[name]) for row in rows)
        self.side, self.parts = rows[0]["side"], int(rows[0]["parts"])
        self.cells, self.steps = int(rows[0]["cells"]), int(rows[0]["steps"])
        self.unknowns = int(median("unknowns"))
        self.seconds, self.megabytes = median(seconds), median("megabytes")
        self.adapting = median("adapting") / median("processor_seconds")
        self.largest, self.l2 = median("largest"), median("l2")
        self.share = median("share")
        self.complete = self.share > 0.999


def read(path, seconds):
    """({parts: {side: [Run, by finest cells]}}, machine)"""
    with open(path) as file:
        machine = file.readline().lstrip("# ").strip()
        rows = list(csv.DictReader(file))
    cases = {}
    for row in rows:
        cases.setdefault((int(row["parts"]), row["side"], int(row["cells"])), []).append(row)
    fronts = {}
    order = list(NAMES)
    for (parts, side, _), repeated in sorted(cases.items(), key=lambda case: (
            case[0][0], order.index(case[0][1]), case[0][2])):
        fronts.setdefault(parts, {}).setdefault(side, []).append(Run(repeated, seconds))
    for sides in fronts.values():
        # A uniform grid that stopped early has no error of its own: it gets that of the same
        # spacing on our mesh.
        for run in sides.get("uniform", []):
            for like in sides.get("ours", []):
                if not run.complete and like.cells == run.cells:
                    run.largest, run.l2 = like.largest, like.l2
    return fronts, machine


def seconds_at(runs, error):
    """Time for an error: between two runs on the line that joins them, beyond them along it by no
    more than a factor of 1.25 in the error. None where that does not reach."""
    best = []  # by falling error and growing time; no run that takes longer for a larger error
    for run in sorted(runs, key=lambda run: run.seconds):
        if not best or run.largest < best[-1].largest:
            best.append(run)
    runs = best[::-1]
    if len(runs) < 2 or not runs[0].largest / 1.25 <= error <= runs[-1].largest * 1.25:
        return None
    after = next((i for i, run in enumerate(runs) if run.largest >= error), len(runs) - 1)
    low, high = runs[max(after - 1, 0)], runs[max(after, 1)]
    share = math.log(error / low.largest) / math.log(high.largest / low.largest)
    return math.exp((1.0 - share) * math.log(low.seconds) + share * math.log(high.seconds))


def rounded(value, digits=3):
    return f"{value:.{digits}g}" if value < 10 ** digits else f"{value:.0f}"


def front_table(sides):
    yield ("| | finest spacing | time steps | unknowns | largest error | L2 error | seconds "
           "| of these adapting | megabytes |")
    yield "|---|---|---|---|---|---|---|---|---|"
    for side, runs in sides.items():
        for run in runs:
            sign = "" if run.complete else "≈ "
            adapting = "" if side == "uniform" else f"{100.0 * run.adapting:.0f} %"
            yield (f"| {NAMES[side]} | 1/{run.cells} | {run.steps} | {run.unknowns:,} "
                   f"| {sign}{run.largest:.2g} | {sign}{run.l2:.2g} "
                   f"| {sign}{rounded(run.seconds)} | {adapting} | {run.megabytes:.0f} |")


def goal_table(fronts):
    others = ["uniform", "p4est", "deal.II"]
    yield ("| | front | largest error | seconds | " +
           " | ".join(f"{NAMES[side]} | ours / theirs" for side in others) + " |")
    yield "|---|---|---|---|" + "---|---|" * len(others)
    for parts, ours, run in [(parts, ours, run) for ours in ["ours", "ours_once"]
                             for parts, sides in fronts.items() for run in sides.get(ours, [])]:
        cells = []
        for side in others:
            # One sum is compared with the other side that has one.
            runs = fronts[parts].get(side, []) if ours == "ours" or side == "deal.II" else []
            theirs = seconds_at(runs, run.largest)
            cells += ([rounded(theirs), f"**{run.seconds / theirs:.2g}**"] if theirs
                      else ["", ""])
        if ours != "ours" and not any(cells):
            continue
        yield (f"| {NAMES[ours]} | 1/{parts} | {run.largest:.2g} | {rounded(run.seconds)} | " +
               " | ".join(cells) + " |")


def draw_errors(parts, sides, program, path):
    scaled = any(not run.complete for runs in sides.values() for run in runs)
    text = [f"Front of 1/{parts}: largest error" + (" (dashed: scaled)" if scaled else ""),
            "seconds", "error"]
    for side, runs in sides.items():
        points = " ".join(f"{run.seconds:.4g} {run.largest:.4g}" for run in
                          sorted(runs, key=lambda run: run.seconds)
                          if run.largest == run.largest)
        dashed = int(any(not run.complete for run in runs))
        text.append(f"{NAMES[side]};{COLOURS[side]};{dashed};{points}")
    subprocess.run([program, path], input="\n".join(text) + "\n", text=True, check=True)


def main():
    arguments = [argument for argument in sys.argv[1:] if argument != "--processor"]
    if len(arguments) not in (5, 6):
        sys.exit(__doc__)
    results, plot, cells, cells_folder, pictures = arguments[:5]
    processor = "--processor" in sys.argv
    fronts, machine = read(results, "processor_seconds" if processor else "seconds")
    if processor:
        machine += "; the processor's seconds, on a machine that had other work to do"
    tables = {"machine": machine, "goal": "\n".join(goal_table(fronts))}
    for parts, sides in fronts.items():
        tables[f"front {parts}"] = "\n".join(front_table(sides))
        draw_errors(parts, sides, plot, os.path.join(pictures, f"solvers_{parts}.svg"))
    meshes = []
    for side in ["ours", "uniform", "p4est", "deal.II"]:
        meshes += [NAMES[side], os.path.join(cells_folder, side)]
    subprocess.run([cells, os.path.join(pictures, "solvers_meshes.png"), *meshes], check=True)
    for name, table in tables.items():
        print(f"{name}\n{table}\n")
    if len(arguments) == 6:
        put_tables(tables, arguments[5])


if __name__ == "__main__":
    main()
