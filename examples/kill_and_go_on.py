"""Runs an example at one go, and again with a file to save to, killed on the way.

    kill_and_go_on.py FILE END COMMAND ...

COMMAND takes FILE as one more argument. Both runs must end with the same two lines, which match END
and say that less than 1e-12 was lost.
"""
import os
import random
import re
import subprocess
import sys
import time

file, end, *command = sys.argv[1:]


def last_lines(run):
    done = subprocess.run(run, capture_output=True, text=True, stdin=subprocess.DEVNULL)
    assert (done.returncode, done.stderr) == (0, ""), done
    return done.stdout, "".join(done.stdout.splitlines(keepends=True)[-2:])


def kill_on_the_way(patience):
    """Some time after the file was saved anew."""
    def saved_at():
        return os.stat(file).st_mtime_ns if os.path.exists(file) else 0

    before = saved_at()
    with subprocess.Popen(command + [file], stdout=subprocess.DEVNULL) as process:
        while saved_at() == before and process.poll() is None:
            time.sleep(0.01)
        time.sleep(random.uniform(0.0, patience))
        process.kill()
    assert process.returncode == -9, "it was over before it was killed"


if os.path.exists(file):
    os.remove(file)
_, at_one_go = last_lines(command)
print(at_one_go)
assert re.search("changed by less than 1e-12 of itself " + end + "$", at_one_go)
for _ in range(2):
    kill_on_the_way(0.2)
output, continued = last_lines(command + [file])
print(output)
assert re.match(r"going on after update [1-9]\d+\n", output)
assert continued == at_one_go
