"""How fast the page is here: medians and minima of 100 pictures in motion.

    measure.py FOLDER_OF_THE_PAGE
"""
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

SCENES = [
    ("a ring", "field=ring&frame=30&finest=0.002&slope=0.2&limit=14"),
    ("the same, as cells", "field=ring&frame=30&finest=0.002&slope=0.2&limit=14&show=cells"),
    ("waves", "field=waves&frame=300&finest=0.005&limit=8&colour=value"),
    ("a fine ring", "field=ring&frame=30&finest=0.002&slope=0.055&limit=14"),
    ("by update", "field=ring&frame=30&finest=0.002&slope=0.055&limit=14&method=update"),
]


def main(folder):
    driver = browser.start(1280, 800)
    page = browser.Page(driver, folder)
    try:
        page.open()
        page.rest_or_stop()
        first = page.script("return velmarPage.screen.firstPicture()")
        print(f"first picture after {first:.0f} ms")
        print(f"{'':20} nodes    update, ms    pixels, ms    worker, ms   a picture, ms")
        for name, scene in SCENES:
            page.open(scene + "&squares=24x16")
            page.rest()
            nodes, *times = driver.execute_async_script(MOTION)
            print(f"{name:18} {nodes:7d}" + "".join(
                f"  {median:6.1f} ({least:.1f})" for median, least in zip(times[::2], times[1::2])))
    finally:
        driver.quit()


if __name__ == "__main__":
    main(*sys.argv[1:])
