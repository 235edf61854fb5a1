"""How fast the page is here: 100 pictures in motion, medians and minima of what passes on the clock,
and the processor time a picture of the worker and of the page, which others on the machine lengthen
less.

    measure.py FOLDER_OF_THE_PAGE
"""
import collections
import os
import pathlib
import sys

import browser

MOTION = """
const done = arguments[arguments.length - 1];
const { state } = velmarPage;
const seen = { update: [], draw: [], worker: [], picture: [] };
let last = 0;
state.playing = true;
velmarPage.watch = (answer) => {
  const now = performance.now();
  seen.update.push(answer.report ? answer.report.milliseconds : NaN);
  seen.draw.push(answer.drawn);
  seen.worker.push(answer.worked);
  if (last) seen.picture.push(now - last);
  last = now;
  if (seen.picture.length < 100) return;
  velmarPage.watch = null;
  state.playing = false;
  for (const times of Object.values(seen)) times.sort((a, b) => a - b);
  done([answer.report.nodes, ...Object.values(seen).flatMap((t) => [t[t.length >> 1], t[0]])]);
};
"""


def processor_times(driver):
    """Seconds of all threads of the browser that show pages, by their names."""
    profile = driver.capabilities["chrome"]["userDataDir"]
    times = collections.Counter()
    for process in pathlib.Path("/proc").glob("[0-9]*"):
        try:
            command = (process / "cmdline").read_text()
            if "--type=renderer" not in command or profile not in command:
                continue
            for thread in (process / "task").iterdir():
                name = (thread / "comm").read_text().strip()
                fields = (thread / "stat").read_text().rpartition(")")[2].split()
                times[name] += (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")
        except OSError:
            continue  # it has ended
    return times


SCENES = [
    ("a ring", "field=ring&frame=30&finest=0.002&slope=0.2&limit=14"),
    ("the same, as cells", "field=ring&frame=30&finest=0.002&slope=0.2&limit=14&show=cells"),
    ("waves", "field=waves&frame=300&finest=0.005&limit=8&colour=value"),
    ("a fine ring", "field=ring&frame=30&finest=0.0018&slope=0.045&limit=14"),
    ("by update", "field=ring&frame=30&finest=0.0018&slope=0.045&limit=14&method=update"),
]


def main(folder):
    driver = browser.start(1280, 800)
    driver.set_script_timeout(300)
    page = browser.Page(driver, folder)
    try:
        page.open()
        page.rest_or_stop()
        first = page.script("return velmarPage.screen.firstPicture()")
        print(f"first picture after {first:.0f} ms")
        print("                     nodes  |   update   pixels   worker  a picture, ms (least)"
              "  |  processor: worker  page, ms")
        for name, scene in SCENES:
            page.open(scene + "&squares=24x16")
            page.rest()
            before = processor_times(driver)
            nodes, *times = driver.execute_async_script(MOTION)
            spent = processor_times(driver)
            spent.subtract(before)
            worker = sum(time for name, time in spent.items() if "Worker" in name)
            main_thread = sum(time for name, time in spent.items() if name in ("chromium", "CrRendererMain"))
            print(f"{name:18} {nodes:7d}" + "".join(
                f"  {median:5.1f} ({least:.1f})" for median, least in zip(times[::2], times[1::2])) +
                f"    {10 * worker:5.1f} {10 * main_thread:5.1f}", flush=True)
    finally:
        driver.quit()


if __name__ == "__main__":
    main(*sys.argv[1:])
