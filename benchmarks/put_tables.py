"""Puts tables into a page: what stands between the two marks of a table is replaced."""
import re
import sys


def put_tables(tables, page):
    """`tables`: {name: text}. Each needs its place, `<!-- begin name -->` to `<!-- end name -->`."""
    with open(page) as file:
        text = file.read()
    for name, table in tables.items():
        marks = re.compile(rf"(<!-- begin {name} -->\n).*?(<!-- end {name} -->)", re.S)
        if not marks.search(text):
            sys.exit(f"{page}: no place for the table {name}")
        text = marks.sub(lambda found: found[1] + table + "\n" + found[2], text)
    with open(page, "w") as file:
        file.write(text)
