"""The film of the page: its own browser, steered as by hand.

    film.py FOLDER_OF_THE_PAGE FILM.webp
"""
import io
import math
import sys

import browser
from PIL import Image


def pictures(page):
    def picture():
        page.rest()
        screen = Image.open(io.BytesIO(page.driver.get_screenshot_as_png())).convert("RGB")
        return screen.resize((640, 400), Image.LANCZOS)

    for i in range(18):  # the pointer on a loop
        turn = 2 * math.pi * i / 18
        page.mouse("mouseMoved", 0.66 + 0.42 * math.cos(turn), 0.5 + 0.3 * math.sin(2 * turn))
        yield picture()
    page.mouse("mouseMoved", -0.2, 1.2)
    page.script("Object.assign(velmarPage.state, {field: 'waves', colour: 'value', frame: 100,"
                " finest: 0.006, limit: 8}); velmarPage.reflect()")
    for _ in range(22):  # waves
        page.script("velmarPage.state.frame += 8")
        yield picture()


def main(folder, film):
    driver = browser.start(960, 600)
    page = browser.Page(driver, folder)
    try:
        page.open("field=pointer&finest=0.003&slope=0.2&x=0.66&y=0.5&squares=21x16")
        page.rest()
        first, *others = pictures(page)
        first.save(film, save_all=True, append_images=others, duration=130, loop=0, quality=45,
                   method=4)
    finally:
        driver.quit()


if __name__ == "__main__":
    main(*sys.argv[1:])
