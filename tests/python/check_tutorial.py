"""Runs the tutorial on its own picture and on a PNG file, and looks at what comes out.

    check_tutorial.py TUTORIAL FOLDER PICTURE
"""
import os
import re
import shutil
import subprocess
import sys

import numpy as np
from PIL import Image

tutorial, folder, picture = sys.argv[1:]
shutil.rmtree(folder, ignore_errors=True)
os.makedirs(folder)


def animate(*options):
    command = [sys.executable, tutorial, *options, "--frames", "12", "--finest", "0.015", "--dpi", "50"]
    done = subprocess.run(command, cwd=folder, capture_output=True, text=True)
    assert done.returncode == 0 and done.stderr == "", done.stderr
    print(done.stdout, end="")
    lines = re.findall(r"frame (\d+): (\d+) nodes, mean temperature ([\d.]+)", done.stdout)
    assert [int(frame) for frame, _, _ in lines] == [10, 12]
    assert all(500 < int(nodes) < 5000 for _, nodes, _ in lines)
    early, late = (float(mean) for _, _, mean in lines)
    assert 0.0 < early < late < 0.5  # heat comes in from one side, and none leaves
    return done.stdout.splitlines()[-1]


def check_frames(name):
    with Image.open(os.path.join(folder, name)) as file:
        assert file.n_frames == 12
        heat = []
        for frame in (0, 5, 11):
            file.seek(frame)
            pixels = np.asarray(file.convert("RGB"), dtype=float)
            plate = pixels[pixels.shape[0] // 3:2 * pixels.shape[0] // 3]
            warm = plate[..., 0] - plate[..., 2] > 60  # yellow to red
            columns = np.flatnonzero(warm.any(axis=0))
            assert columns.min() < 0.25 * plate.shape[1]  # from the west side
            heat.append(warm.sum())
        assert heat[0] < heat[1] < heat[2], heat


assert animate() == "heat.gif: 12 frames"
check_frames("heat.gif")
assert animate(picture, "-o", "boat.gif") == "boat.gif: 12 frames"
check_frames("boat.gif")
