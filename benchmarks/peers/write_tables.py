#!/usr/bin/env python3
"""Puts measurements of compare.py into the page on performance, and draws them.

    write_tables.py RESULTS PLOT_PROGRAM PICTURE.svg [PAGE]

Without PAGE only the picture is drawn.
"""
import os
import subprocess
import sys

from results import CASES, machine_of, peer_of, read_results, rows_of

sys.path.append(os.path.join(os.path.dirname(__file__), ".."))
from put_tables import put_tables

LINES = [  # name, case, (side, what), colour
    ("ring, resolve", "ring", ("ours", "resolve"), "0.80 0.15 0.15"),
    ("ring, p4est", "ring", ("p4est", "all"), "0.80 0.15 0.15"),
    ("front, resolve", "front", ("ours", "resolve"), "0.00 0.45 0.70"),
    ("front, resolve with data", "front",
     ("ours", "resolve with value and indicators"), "0.30 0.70 0.95"),
    ("front, p4est", "front", ("p4est", "all"), "0.00 0.45 0.70"),
    ("steady, resolve", "steady", ("ours", "resolve"), "0.50 0.35 0.65"),
    ("steady, p4est", "steady", ("p4est", "all"), "0.50 0.35 0.65"),
    ("derivatives", "derivatives", ("ours", "value"), "0.10 0.55 0.25"),
    ("derivatives, Eigen's LU", "derivatives", ("eigen", "lu"), "0.10 0.55 0.25"),
    ("walk", "walk", ("ours", "value"), "0.45 0.45 0.45"),
    ("walk, p4est", "walk", ("p4est", "all"), "0.45 0.45 0.45"),
]


def draw(results, program, picture):
    text = ["Time per node (ours, solid) and per cell or fit (theirs, dashed)", "nodes or cells", "ns"]
    for name, case, key, colour in LINES:
        points = []
        for (one_case, about), measured in results.items():
            if one_case == case and key in measured:
                one = measured[key]
                points.append((one.count / one.steps, 1e9 * one.median))
        if points:
            numbers = " ".join(f"{x} {y:.4g}" for x, y in sorted(points))
            text.append(f"{name};{colour};{int(key[0] != 'ours')};{numbers}")
    subprocess.run([program, picture], input="\n".join(text) + "\n", text=True, check=True)


def number(value):
    return f"{value:,.0f}"


def figure(one, scale):
    """Median and range."""
    def digits(value):
        return f"{value:.3g}" if value < 100 else f"{value:.0f}"
    median = digits(one.median * scale)
    if len(one.counts) == 1:
        return median
    low, high = (digits(v * scale) for v in one.range)
    return f"{median} ({low} to {high})"


def case_table(results, case):
    scale, unit = (1.0, "bytes") if case == "memory" else (1e9, "ns")
    other = "Eigen's nodes" if case == "derivatives" else "p4est's cells"
    each = "node" if case == "derivatives" else "cell"
    yield (f"| about | ours | nodes | {unit} a node | {other} | {unit} a {each} | ours / theirs | "
           "at equal spacing |")
    yield "|---|---|---|---|---|---|---|---|"
    for one_case, about, side, what, one, ratio in rows_of(results):
        if one_case != case or side != "ours":
            continue
        measured = results[case, about]
        peer = peer_of(case, measured, what)
        cells = number(peer.count / peer.steps) if peer else ""
        yield (f"| {about:.0e} | {what} | {number(one.count / one.steps)} | {figure(one, scale)} "
               f"| {cells} | {figure(peer, scale) if peer else ''} | "
               f"{f'**{ratio:.2f}**' if ratio else ''} | "
               f"{f'{one.total / peer.total:.2f}' if peer else ''} |".replace("e+0", "e"))


def phases_table(results):
    phases = ["refine", "coarsen", "balance", "neighbours"]
    yield "| case | about | " + " | ".join(phases) + " | all |"
    yield "|---|---|---|---|---|---|---|"
    for (case, about), measured in results.items():
        if ("p4est", "balance") not in measured:
            continue
        cells = [f"{1e9 * measured['p4est', phase].median:.0f}" if ("p4est", phase) in measured
                 else "" for phase in phases + ["all"]]
        yield f"| {case} | {about:.0e} | ".replace("e+0", "e") + " | ".join(cells) + " |"


def settled_table(results):
    yield ("| case | about | finest spacing | nodes by resolve | cells of p4est | nodes / cells "
           "| rounds of p4est | updates | nodes by updates | coarser than wanted | by at most |")
    yield "|---|---|---|---|---|---|---|---|---|---|---|"
    for (case, about), measured in results.items():
        if ("ours", "too coarse") not in measured or case in ("front", "creep"):
            continue
        left, updated = measured["ours", "too coarse"], measured["ours", "no data"]
        resolved, cells = measured["ours", "resolve"].count, measured["p4est", "all"].count
        yield (f"| {case} | {about:.0e} | {measured['both', 'finest'].total:g} | "
               f"{number(resolved)} | {number(cells)} | **{resolved / cells:.2f}** | "
               f"{measured['p4est', 'rounds'].count:.0f} | "
               f"{measured['ours', 'updates'].count:.0f} | {number(updated.count)} | "
               f"{100 * left.count / updated.count:.1f} % | {left.total:.2f} levels |"
               ).replace("e+0", "e")


def write_page(results, machine, page):
    tables = {case: "\n".join(case_table(results, case)) for case in CASES}
    tables["phases"] = "\n".join(phases_table(results))
    tables["settled"] = "\n".join(settled_table(results))
    tables["machine"] = machine
    put_tables(tables, page)


def main():
    if len(sys.argv) not in (4, 5):
        sys.exit(__doc__)
    results = read_results(sys.argv[1])
    draw(results, sys.argv[2], sys.argv[3])
    if len(sys.argv) == 5:
        write_page(results, machine_of(sys.argv[1]), sys.argv[4])


if __name__ == "__main__":
    main()
