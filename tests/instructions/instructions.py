"""Counts the instructions of fixed cases and compares them with stored counts.

    instructions.py check PROGRAM COUNTS CASE     fails if a count differs by more than the margin
    instructions.py store PROGRAM COUNTS          counts all cases and stores them

The case `prefetches` counts those in the program's code instead: a compiler drops calls of
procedures that only prefetch where it does not inline them, and no result tells.

COUNTS is a text file: the compiler on the first line, then a case and its count on each line.
"""
import os
import re
import subprocess
import sys
import tempfile

MARGIN = 0.03
PREFETCHES = "prefetches"
CASES = ["ring", "front", "resolve", "derivatives", PREFETCHES]


def compiler_of(program):
    return subprocess.run([program, "compiler"], capture_output=True, text=True,
                          check=True).stdout.strip()


def count_prefetches(program):
    code = subprocess.run(["objdump", "--disassemble", "--no-show-raw-insn", program],
                          capture_output=True, text=True, check=True).stdout
    return len(re.findall(r"\tprefetch", code))


def count(program, case):
    if case == PREFETCHES:
        return count_prefetches(program)
    with tempfile.TemporaryDirectory() as folder:
        done = subprocess.run(
            ["valgrind", "--tool=callgrind", "--collect-atstart=no",
             "--toggle-collect=measured_work", "--cache-sim=no",
             "--callgrind-out-file=" + os.path.join(folder, "out"), program, case],
            capture_output=True, text=True)
    found = re.search(r"Collected : (\d+)", done.stderr)
    if done.returncode != 0 or found is None or int(found[1]) == 0:
        sys.exit(f"{case}: nothing was counted\n{done.stderr}")
    return int(found[1])


def read(path):
    with open(path) as file:
        compiler, *lines = file.read().splitlines()
    return compiler, {name: int(number) for name, number in (line.split() for line in lines)}


def check(program, path, case):
    compiler, stored = read(path)
    if compiler_of(program) != compiler:
        sys.exit(f"the counts were stored with {compiler}, this is {compiler_of(program)}")
    now, before = count(program, case), stored[case]
    change = now / before - 1.0
    print(f"{case}: {now}, {before} stored, {100.0 * change:+.1f} %")
    if case == PREFETCHES:
        if now < before:
            sys.exit("prefetches have been dropped; if that was meant, store the new counts")
        return
    if abs(change) > MARGIN:
        what = "slower" if change > 0 else "faster: keep it so by storing the new count"
        sys.exit(f"{case} has become {what}\n"
                 f"    {sys.executable} {os.path.abspath(__file__)} store {program} {path}")


def store(program, path):
    lines = [compiler_of(program)] + [f"{case} {count(program, case)}" for case in CASES]
    with open(path, "w") as file:
        file.write("\n".join(lines) + "\n")
    print("\n".join(lines))


if __name__ == "__main__":
    {"check": check, "store": store}[sys.argv[1]](*sys.argv[2:])
