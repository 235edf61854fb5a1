"""Joins the pictures of a run to a film.

    film.py FILM.webp PICTURE.png ...

Needs Pillow (Debian: python3-pil).
"""
import sys

from PIL import Image

if len(sys.argv) < 3:
    sys.exit("usage: film.py FILM.webp PICTURE.png ...")
first, *others = (Image.open(picture).convert("RGB") for picture in sys.argv[2:])
first.save(sys.argv[1], save_all=True, append_images=others, duration=150, loop=0, quality=45,
           method=4)
