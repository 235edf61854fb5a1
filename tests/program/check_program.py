"""Runs the program velmar_2d.

    check_program.py PROGRAM MANUAL FOLDER
"""
import contextlib
import json
import os
import pty
import random
import re
import shutil
import signal
import struct
import subprocess
import sys
import time
import unittest
import zlib

import meshio
import numpy

PROGRAM, MANUAL, FOLDER = (sys.argv.pop(1) for _ in range(3))


def run(*arguments):
    return subprocess.run([PROGRAM, *arguments], cwd=FOLDER, capture_output=True, text=True,
                          stdin=subprocess.DEVNULL)


def write(name, content):
    with open(os.path.join(FOLDER, name), "wb") as file:
        file.write(content if isinstance(content, bytes) else content.encode())
    return name


def png(rows):
    """A grey picture."""
    def chunk(kind, data):
        return (struct.pack(">I", len(data)) + kind + data +
                struct.pack(">I", zlib.crc32(kind + data)))
    header = struct.pack(">IIBBBBB", len(rows[0]), len(rows), 8, 0, 0, 0, 0)
    data = zlib.compress(b"".join(b"\0" + bytes(row) for row in rows))
    return (b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", header) + chunk(b"IDAT", data) +
            chunk(b"IEND", b""))


class Program(unittest.TestCase):
    def assert_done(self, done):
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertEqual(done.stderr, "")

    def mesh(self, *arguments):
        done = run("vtu", *arguments, "-o", "mesh.vtu")
        self.assert_done(done)
        mesh = meshio.read(os.path.join(FOLDER, "mesh.vtu"))
        self.assertEqual(done.stdout, f"mesh.vtu: {len(mesh.points)} nodes\n")
        x, y, _ = mesh.points.T
        return x, y, mesh.point_data["wanted_spacing"], mesh.point_data["level"]

    def test_expression(self):
        x, y, wanted, level = self.mesh(
            "x < 1 ? 0.02 + 0.2*hypot(x, y) : 0.22 + 0.1*abs(sin(pi*y))", "--domain", "-1", "2", "-1", "1",
            "--squares", "20", "--finest", "0.03", "--coarsest", "0.3")
        self.assertEqual((x.min(), x.max(), y.min(), y.max()), (-1, 2, -1, 1))
        spacing = numpy.where(x < 1, 0.02 + 0.2 * numpy.hypot(x, y),
                              0.22 + 0.1 * abs(numpy.sin(numpy.pi * y)))
        self.assertTrue(numpy.allclose(wanted, spacing.clip(0.03, 0.3), rtol=1e-12))
        self.assertLess((0.1 * 2.0 ** (-level / 2) / wanted).max(), 1 + 1e-9)  # none is too coarse
        # Far from the origin a width and a height are numbers of squares up to rounding only: here
        # the width is a little more than 48 of them, and the domain grows.
        x, y, _, _ = self.mesh("0.05", "--domain", "1e7", "10000000.3", "0", "0.1")
        self.assertEqual((x.min(), x.max(), y.min(), len(x)), (1e7, 10000000.30625, 0, 50 * 17))

    def test_lines(self):
        random.seed(7)
        points = [(random.gauss(0, 30), random.gauss(500, 10)) for _ in range(300)]
        lines = [points[:120], points[120:121], points[121:]]
        text = write("lines.txt", "# x y\r\n" + "\n\n".join(
            "\n".join(f"{x!r} , {y!r} 17 depth" for x, y in line) for line in lines))
        geojson = write("lines.geojson", json.dumps({"type": "FeatureCollection", "features": [
            {"type": "Feature", "geometry": None},
            {"type": "Feature", "geometry": {"type": "MultiLineString",
                                             "coordinates": [lines[0], lines[2]]}},
            {"type": "GeometryCollection",
             "geometries": [{"type": "Point", "coordinates": [*lines[1][0], -5.0]}]}]}))
        options = ["--grading", "0.4", "--finest", "1", "--limit", "7"]
        x, y, wanted, _ = self.mesh(text, *options)

        def check(segments, x, y, wanted):
            ends = numpy.array(segments)
            a, along = ends[:, 0], ends[:, 1] - ends[:, 0]
            length = (along ** 2).sum(axis=1)
            for node in range(0, len(x), 7):
                p = numpy.array([x[node], y[node]])
                share = ((p - a) * along).sum(axis=1) / numpy.where(length > 0, length, 1)
                nearest = a + along * share.clip(0, 1)[:, None]
                distance = numpy.sqrt(((nearest - p) ** 2).sum(axis=1)).min()
                self.assertAlmostEqual(wanted[node], max(1, 0.4 * distance), 9)

        check([pair for line in lines for pair in zip(line, line[1:])] + [lines[1] * 2],
              x, y, wanted)
        low, high = numpy.min(points, axis=0), numpy.max(points, axis=0)
        self.assertTrue(x.min() < low[0] and y.min() < low[1] and x.max() > high[0] and
                        y.max() > high[1], "the lines lie in the domain")
        again = self.mesh(geojson, *options)
        self.assertTrue(all(map(numpy.array_equal, again, self.mesh(text, *options))))
        x, y, wanted, _ = self.mesh(text, *options, "--scattered")
        check([(p, p) for p in points], x, y, wanted)
        name = write("type_last.json", json.dumps({"coordinates": points, "type": "MultiPoint"}))
        self.assertTrue(all(map(numpy.array_equal, self.mesh(name, *options),
                                self.mesh(text, *options, "--scattered"))))

    def test_picture_and_stats(self):
        # White above black, the edge a quarter of the height below the top.
        name = write("half.png", png([[255] * 40] * 10 + [[0] * 40] * 30))
        x, y, wanted, level = self.mesh(name, "--squares", "5")
        self.assertEqual((x.min(), x.max(), y.min(), y.max()), (0, 40, 0, 40))
        finest = level == level.max()
        self.assertTrue((abs(y[finest] - 30) <= 3).all() and finest.sum() > 40)
        self.assertEqual(wanted.min(), 1.0)  # no finer than the pixels
        away = 29 - y[y < 29]
        self.assertLess(abs(wanted[y < 29] - (1 + 0.25 * away)).max(), 1)
        self.assertEqual(run("draw", name, "--over-picture", "-o", "mesh.pdf").returncode, 0)
        self.assertTrue(os.path.exists(os.path.join(FOLDER, "mesh.pdf")))
        # 60 x 45 pixels are 20 x 15 squares: none is left over at a side.
        done = run("stats", write("wide.png", png([[0] * 60] * 45)))
        self.assertRegex(done.stdout, "^domain: x 0 to 60, y 0 to 45; base squares of 3\n")

        # The first lattice at least as fine as 0.03 is that of level 5: 33 x 33 nodes and the centres
        # of the 32 x 32 squares between them.
        for updates in ([], ["--updates", "6"]):
            done = run("stats", "0.03", "--squares", "8", *updates)
            self.assert_done(done)
            self.assertRegex(done.stdout, r"nodes: 2113, 0 of them coarser than wanted\n(.*\n)*"
                                          r" +5 +0.0220971 +2113 100.0%\n$")

    def test_what_is_delivered(self):
        def stats(*arguments):
            done = run("stats", *arguments)
            self.assert_done(done)
            at_level_8 = re.search(r"\n +8 +\S+ +(\d+)", done.stdout)
            return (int(re.search(r"nodes: \d+, (\d+) of", done.stdout)[1]),
                    int(at_level_8[1]) if at_level_8 else 0)

        # Updates stay too coarse where sizes grow fast.
        steep = "0.004 + 2*abs(hypot(x, y) - 0.7)"
        self.assertEqual(stats(steep)[0], 0)
        self.assertGreater(stats(steep, "--updates", "5")[0], 0)
        # A stripe that many nodes miss is followed from those that see it.
        stripe = "abs(y - x^2) < 0.002 ? 0.004 : 1"
        self.assertGreater(stats(stripe, "--slope", "0.2")[1], 10 * stats(stripe)[1])
        # What the limit forbids is told.
        done = run("draw", "0.01", "--squares", "4", "--limit", "5")
        self.assertEqual(done.returncode, 0)
        self.assertEqual(done.stderr, "545 of 545 nodes stay coarser than wanted, at --limit 5\n")

    def test_progress(self):
        slow = "0.0005 + 0*(" + "+".join(["sin(x)"] * 2000) + ")"
        command = [PROGRAM, "stats", slow, "--limit", "14", "--most-nodes", "10000000"]
        screen, terminal = pty.openpty()
        started = [subprocess.Popen(command + more, stdin=subprocess.DEVNULL,
                                    stdout=subprocess.DEVNULL, stderr=stderr)
                   for more, stderr in (([], terminal), (["--progress"], subprocess.PIPE),
                                        ([], subprocess.PIPE))]
        os.close(terminal)
        time.sleep(3.6)
        for process in started:
            process.send_signal(signal.SIGINT)
        begin = time.monotonic()
        drawn = b""
        with contextlib.suppress(OSError):  # what a terminal says whose other end is closed
            while more := os.read(screen, 1000):
                drawn += more
        on_terminal, asked, silent = (process.communicate()[1] for process in started)
        self.assertLess(time.monotonic() - begin, 2)
        self.assertEqual({process.returncode for process in started}, {-signal.SIGINT})

        # One line, drawn anew ten times a second at most, and wiped away.
        first, *states, last = drawn.decode().split("\r\033[K")
        self.assertEqual((first, last, on_terminal), ("", "", None))
        self.assertTrue(3 <= len(states) <= 32, states)
        for state in states:
            self.assertRegex(state, r"^refining: [\d ]+ nodes, [0-4]\.\d s$")
        # Elsewhere a line a second, where that is asked for.
        self.assertIn(len(asked.splitlines()), (1, 2, 3))
        for line in asked.decode().splitlines():
            self.assertRegex(line, r"^refining: [\d ]+ nodes, [1234] s$")
        self.assertEqual(silent, b"")

    def test_bad_input(self):
        empty, text = write("empty.txt", "# nothing\n\n"), write("bad.txt", "1 2\n3 x\n")
        cut = write("cut.json", '{"type": "Point", "coordi')
        shape = write("shape.json", '{"type": "Ellipse"}')
        odd = write("odd.json", '{"type": "LineString", "coordinates": [[1, 2], ["a", 2]]}')
        arrays = write("arrays.json", '{"a":' + "[" * 1000000)
        deep = write("deep.json", '{"type":"Feature","geometry":' * 80000 + "null" + "}" * 80000)
        foreign = write("foreign.json", '{"coordinates": [1, 2], "geometry": null, "type": "Point"}')
        mixed = write("mixed.json", '{"type": "Polygon", "coordinates": [[[1, 2]], [1, 2]]}')
        name = write("name.json", json.dumps({"type": "\n\x1b[31m" + "x" * 100000}))
        # 10^10 black pixels.
        bomb = write("bomb.png", png([[0]]).replace(struct.pack(">II", 1, 1),
                                                    struct.pack(">II", 100000, 100000)))
        small = write("small.png", png([[0] * 20] * 10))
        files = sorted(os.listdir(FOLDER))
        for arguments, reason in (
                ([], "subcommand"), (["draw"], "FIELD"), (["paint", "1"], "paint is no command; draw, vtu and stats are"),
                (["drw", "1"], "drw is no command; draw is one"), (["state", "1"], "stats is one"),
                (["stats", "bay.geojsn"], "bay.geojsn: no expression, and no kind .*geojson"),
                (["stats", "photo.JPG"], "photo.JPG: no expression"),
                (["stats", "missing.GEOJSON"], "missing.GEOJSON: No such file"),
                (["stats", "1", "--nonsense"], "nonsense"), (["stats", "sin("], 'sin\\('),
                (["stats", "x +"], "x \\+"), (["stats", "z"], "z"), (["stats", "1, 2"], "one value"),
                (["stats", "1", "--limit", "41"], "--limit"),
                (["stats", "1", "--squares", "0"], "--squares"),
                (["stats", text, "--grading", "nan"], "--grading"),
                (["draw", "1", "--cells", "colour"], "--cells"),
                (["stats", "1", "--finest", "-1"], "--finest"),
                (["stats", "1", "--domain", "0", "1", "0"], "--domain"),
                (["stats", "1", "--domain", "1", "0", "0", "1"], "west"),
                (["stats", "1", "--domain", "0", "1", "0", "nan"], "--domain"),
                (["stats", "1", "--domain", "0", "1", "0", "1e9"], "long and thin"),
                (["stats", "1", "--domain", "1e20", "1.0000000000000002e20", "0", "1"], "domain"),
                # Neighbours would get one and the same place: the library itself refuses.
                (["stats", "1", "--domain", "1e15", "1000000000000001", "0", "1"], "init_mesh.*too small"),
                (["stats", "0", "--limit", "30", "--most-nodes", "5000"], "5000 nodes.*--limit"),
                (["stats", "0", "--limit", "30", "--most-nodes", "5000", "--updates", "2"], "5000 nodes"),
                (["stats", "1", "--squares", "100", "--most-nodes", "5000"], "5000 nodes.*--squares"),
                (["stats", "1", "--slope", "0.2", "--updates", "2"], "--slope"),
                (["draw", "1", "--over-picture"], "no picture"),
                (["draw", "1", "-o", "mesh.bmp"], "mesh.bmp: "),
                (["vtu", "1", "-o", "no/such/folder.vtu"], "no/such/folder.vtu: No such file"),
                (["stats", "missing.txt"], "missing.txt: No such file"),
                (["stats", "missing.png"], "missing.png: No such file"),
                (["stats", empty], "empty.txt: .*no points"), (["stats", text], "bad.txt: line 2"),
                (["stats", cut], "cut.json: "), (["stats", shape], "shape.json: .*Ellipse"),
                (["stats", odd], "odd.json: .*pair of numbers"),
                (["stats", mixed], "mixed.json: .*pair of numbers"),
                (["stats", foreign], 'foreign.json: a Point with "geometry"'),
                (["stats", arrays], "arrays.json: more than 100"),
                (["stats", deep], "deep.json: more than 100"),
                (["stats", name], r'name.json: .*"\?\?\[31mx{34}\.\.\."'),
                (["stats", bomb], "bomb.png: the image has 10000000000 pixels.*--max-pixels"),
                (["stats", small, "--max-pixels", "199"], "small.png: the image has 200 pixels")):
            done = run(*arguments)
            self.assertEqual((done.returncode, done.stdout), (2, ""), (arguments, done.stderr))
            self.assertRegex(done.stderr, f"^velmar_2d: .*{reason}.*\n$", arguments)
        self.assertEqual(sorted(os.listdir(FOLDER)), files, "files were left")

    def assert_completed(self, command, options):
        """Bash completes each option in the help, and zsh reads the help with the same expression."""
        folder = os.path.join(os.path.dirname(MANUAL), "completion")
        words = " ".join([f'"{PROGRAM}"', *command, "--"])
        done = subprocess.run(["bash", "-c", f"source {folder}/velmar_2d.bash; COMP_WORDS=({words}); "
                               f"COMP_CWORD={len(command) + 1}; _velmar_2d; echo ${{COMPREPLY[@]}}"],
                              capture_output=True, text=True)
        self.assertEqual((sorted(done.stdout.split()), done.stderr), (sorted(set(options)), ""))
        bash, zsh = (re.findall("sed -nE (.*?) <<<", open(os.path.join(folder, name)).read())
                     for name in ("velmar_2d.bash", "_velmar_2d"))
        self.assertEqual((bash, len(bash)), (zsh, 2))

    def test_help(self):
        with open(MANUAL) as file:
            manual = file.read().replace("\\-", "-")
        for arguments in (["--help"], ["draw", "--help"], ["vtu", "--help"], ["stats", "--help"]):
            done = run(*arguments)
            self.assertEqual((done.returncode, done.stderr), (0, ""))
            options = re.findall(r"^  (?:-\w,)?(--[a-z-]+)", done.stdout, re.M)
            self.assertGreaterEqual(len(options), 2)
            for option in options:
                self.assertRegex(manual, rf"{option}\b(?!-)", "not in the manual")
            self.assert_completed(arguments[:-1], options)
        # Every example in the help works.
        examples = re.findall(r"^  velmar_2d (\w+) (.*)$", run("--help").stdout, re.M)
        self.assertEqual(len(examples), 4)
        for command, rest in examples:
            if '"' in rest:
                done = subprocess.run(f"{PROGRAM} {command} {rest}", shell=True, cwd=FOLDER,
                                      capture_output=True, text=True)
                self.assert_done(done)


shutil.rmtree(FOLDER, ignore_errors=True)
os.makedirs(FOLDER)
unittest.main(verbosity=2)
