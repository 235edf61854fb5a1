#!/usr/bin/env python3
"""Runs the comparison and prints it as a table.

    compare.py PROGRAM RESULTS [--sizes 1e4,1e5,1e6] [--cases ring,front,...] [--repetitions N]
                               [--before COMMAND]

RESULTS receives every single measurement as comma-separated values. --before puts a command in
front of each run, such as one that waits until the machine is idle.
"""
import argparse
import os
import shlex
import subprocess
import sys

from results import CASES, read_results, text_table

HEAD = "case,about,side,what,repetition,count,seconds\n"


def programs_of(case):
    """Memory is measured by a process for each side."""
    return ["memory_ours", "memory_p4est"] if case == "memory" else [case]


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("program")
    parser.add_argument("results")
    parser.add_argument("--sizes", default="1e4,1e5,1e6")
    parser.add_argument("--cases", default=",".join(CASES))
    parser.add_argument("--repetitions", type=int, help="5, and 15 at the smallest size and of derivatives")
    parser.add_argument("--before", default="")
    arguments = parser.parse_args()

    with open(arguments.results, "w") as results:
        results.write(subprocess.run([arguments.program, "machine"], stdout=subprocess.PIPE,
                                     text=True, check=True).stdout)
        results.write(HEAD)
        for case in arguments.cases.split(","):
            for size in arguments.sizes.split(","):
                # The first two passes of derivatives are unlike the others, and should not decide.
                many = float(size) < 1e5 or case == "derivatives"
                repetitions = arguments.repetitions or (15 if many else 5)
                for program in programs_of(case):
                    command = shlex.split(arguments.before) + [
                        os.path.abspath(arguments.program), program, size,
                        str(repetitions)]
                    # A long front is cut into as many pieces as there are repetitions.
                    if case in ("front", "creep") and float(size) >= 1e6:
                        command.append(str(max(50 // repetitions, 1)))
                    print(f"{program} {size} ...", file=sys.stderr, flush=True)
                    done = subprocess.run(command, stdout=subprocess.PIPE, text=True)
                    if done.returncode != 0:
                        sys.exit(f"{program} {size} ended with {done.returncode}")
                    results.write(done.stdout)
                    results.flush()
    print(text_table(read_results(arguments.results)))


if __name__ == "__main__":
    main()
