#!/usr/bin/env python3
"""Has clang-tidy look at sources, several of them at a time: most of its time goes into the headers
of the system, which those of a batch share. Where a batch is complained about, its sources are
looked at one by one, and what is found then counts: names may clash in a batch alone.

    clang_tidy.py CLANG_TIDY BUILD SOURCES FOLDER

BUILD holds the compile_commands.json, SOURCES is a file with a path in each line; FOLDER receives
the batches.
"""
import concurrent.futures
import json
import os
import pathlib
import shlex
import subprocess
import sys

MOST = 20  # sources in a batch: few enough of them that all processors have work


def options_of(entry):
    """The command without what it reads and writes."""
    words, options = iter(shlex.split(entry["command"])), []
    for word in words:
        if word in ("-o", "-c", "-MF", "-MT"):
            next(words)
        elif word != "-MD":
            options.append(word)
    return tuple(options)


def batches_of(build, sources):
    """[(folder to compile in, options, sources)]: alike but for the sources, and of one component."""
    commands = json.loads((pathlib.Path(build) / "compile_commands.json").read_text())
    entries = {entry["file"]: entry for entry in commands}
    sources = [pathlib.Path(line) for line in pathlib.Path(sources).read_text().splitlines()]
    root = os.path.commonpath(sources)
    alike = {}
    for source in sources:
        entry, component = entries[str(source)], source.relative_to(root).parts[0]
        alike.setdefault((component, entry["directory"], options_of(entry)), []).append(str(source))
    return [(directory, options, files[i:i + MOST])
            for (_, directory, options), files in alike.items()
            for i in range(0, len(files), MOST)]


def write_batches(batches, folder):
    """The paths of files that include the sources, and how they are compiled."""
    database = []
    for i, (directory, options, sources) in enumerate(batches):
        path = folder / f"batch_{i}.cpp"
        path.write_text("".join(f'#include "{source}"  // NOLINT(bugprone-suspicious-include)\n'
                                for source in sources))
        database.append({"directory": directory, "file": str(path),
                         "command": shlex.join([*options, "-c", str(path)])})
    (folder / "compile_commands.json").write_text(json.dumps(database, indent=1))
    return [entry["file"] for entry in database]


def main():
    program, build, sources, folder = sys.argv[1:]
    folder = pathlib.Path(folder)
    folder.mkdir(exist_ok=True)

    def findings(database, source):
        done = subprocess.run([program, "--quiet", "-p", database, source], text=True,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        return done.stdout if done.returncode != 0 else ""

    batches = batches_of(build, sources)
    paths = write_batches(batches, folder)
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        complaints = pool.map(lambda path: findings(folder, path), paths)
        suspects = [source for complaint, (_, _, files) in zip(complaints, batches) if complaint
                    for source in files]
        found = "".join(pool.map(lambda source: findings(build, source), suspects))
    if found:
        sys.exit(found)


if __name__ == "__main__":
    main()
