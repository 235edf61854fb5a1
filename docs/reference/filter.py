"""What doxygen reads instead of a page or a header.

    filter.py FILE

Pages: pictures and examples are named without their folder, links to headers lead to their groups,
and the list of what to read next becomes the tree of pages, in its order. Headers: the text at the top
opens their group, and the sections between two rules become groups in it.
"""
import pathlib
import re
import sys

SECTION = re.compile(r"// -{60,}\n// (.+)\n(?:// .+\n)*// -{60,}\n")


def page(path, text):
    text = re.sub(r"(!\[[^]]*\]\()[\w/.]*pictures/", r"\1", text)
    text = re.sub(r"\[([^]]+)\]\([\w/.]*?(\w+)\.hpp\)", r'\\ref \2 "\1"', text)
    text = re.sub(r"(\]\()(?:\.\./)?examples/(?:python/)?", r"\1", text)
    text = re.sub(r"(\]\(\w+\.md)#[\w-]+\)", r"\1)", text)  # it knows sections of the same page only
    text = text.replace("](LICENSE)", "](./LICENSE)")
    if path.name != "README.md":
        return text
    before, title, last = text.partition("## Read on\n")
    # The reference of Python is made from its sources, and there is no page of it to link to.
    last = last.replace("- [From Python](docs/python.md)\n",
                        "- [From Python](docs/python.md)\n"
                        "- \\subpage python_reference \"Reference of the Python package\"\n")
    last = re.sub(r"\[([^]]+)\]\((?:docs/)?(\w+)\.md\)",
                  lambda link: f'\\subpage {page_of(link[2])} "{link[1]}"', last)
    return before + title + last


def page_of(name):
    return ("md_" if name.isupper() else "md_docs_") + name


def header(path, text):
    top, once, rest = text.partition("#pragma once\n")
    manual = re.sub(r"^///? ?", "/// ", top, flags=re.MULTILINE)
    namespace = re.search(r"namespace velmar_2d(::\w+)? \{\n", rest)
    first, inside = rest[:namespace.end()], rest[namespace.end():]
    number = 0

    def group(section):
        nonlocal number
        number += 1
        end = "/// @}\n" if number > 1 else ""
        return f"{end}\n/// @defgroup {path.stem}_{number} {section[1]}\n/// @{{\n"

    inside = SECTION.sub(group, inside)
    body, end, after = inside.rpartition("}  // namespace velmar_2d")
    inside = (f"/// @addtogroup {path.stem}\n/// @{{\n{body}" +
              "/// @}\n" * (2 if number > 0 else 1) + end + after)
    titles = {"mesh": "The mesh as an object", "records": "Records, directions, callbacks",
              "velmar_2D": "Free procedures", "velmar_2D_io": "Pictures and files",
              "arrays": "The mesh as arrays", "velmar_2D_hdf5": "Saving and loading",
              "velmar_2D_numerics": "Parts for solvers"}
    title = titles.get(path.stem, "velmar_2d")
    return (f"/// @defgroup {path.stem} {title} ({path.name})\n///\n"
            f"/// ~~~{{.unparsed}}\n{manual}/// ~~~\n\n"
            f"/// @file\n/// Its manual: @ref {path.stem}\n" + once + first + inside)


def main(name):
    path = pathlib.Path(name)
    text = path.read_text(encoding="utf-8")
    sys.stdout.write((page if path.suffix == ".md" else header)(path, text))


if __name__ == "__main__":
    main(sys.argv[1])
