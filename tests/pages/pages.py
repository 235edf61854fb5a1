"""Takes the code out of a page and runs it.

    pages.py extract PAGE SOURCE                  writes the ```cpp blocks as one program
    pages.py run PAGE PAGE_PROGRAM TOOL FOLDER    runs it, and the lines "velmar_2d ..." of ```sh blocks
    pages.py write (the same)                     puts what they print and draw into the page

A block with a main() is a program of its own. Any other is run beside a `mesh` that is made for it,
unless it makes one itself, and the same one for the free procedures, unless it calls init_mesh(). A
```python block is a program too, which is run where the Python package was built. A ```text block
that follows a ```cpp, ```python or ```sh block is what it prints.
"""
import os
import re
import shutil
import subprocess
import sys

# Where the Python package was built; empty where it was not.
PYTHON_PACKAGE = os.environ.get("VELMAR_2D_PYTHON_PACKAGE", "")

FENCE = re.compile(r"^```(\w*)\n(.*?)^```\n", re.M | re.S)


def blocks_of(page):
    """(language, content, expected output or None) of every block, in order."""
    with open(page) as file:
        text = file.read()
    found = list(FENCE.finditer(text))
    if text.count("\n```") != 2 * len(found) - text.startswith("```"):
        sys.exit(f"{page}: a code block has no end")
    for block, after in zip(found, found[1:] + [None]):
        is_output = (after is not None and after[1] == "text" and
                     not text[block.end():after.start()].strip())
        yield block[1], block[2], after[2] if is_output else None


def extract(page, source):
    with open(source, "w") as file:
        file.write('#include "page.hpp"\n')
        names = []
        for language, content, _ in blocks_of(page):
            if language != "cpp":
                continue
            name = f"block_{len(names)}"
            names.append(name)
            if "int main(" in content:
                file.write(f"namespace {name} {{\n#define main run\n{content}#undef main\n}}\n")
            else:
                make = "velmar_2d::Mesh mesh = page::make_mesh();\n"
                if "init_mesh(" not in content:
                    make += "page::make_default_mesh();\n"
                file.write(f"namespace {name} {{\nint run() {{\n{make}{{\n{content}}}\n"
                           "return 0;\n}\n}\n")
        calls = "".join(f"  page::run({name}::run);\n" for name in names)
        file.write(f"int main() {{\n{calls}}}\n")


def outputs_of(page, program, tool, folder):
    """What each block prints, in order; None for blocks that nothing is run of."""
    shutil.rmtree(folder, ignore_errors=True)
    os.makedirs(folder + "/docs/pictures")
    os.symlink(tool, folder + "/velmar_2d")
    os.symlink(os.path.join(root(page), "examples"), folder + "/examples")

    done = subprocess.run([program], cwd=folder, capture_output=True, text=True,
                          stdin=subprocess.DEVNULL)
    if done.returncode != 0:
        sys.exit(f"{page}: its program ended with {done.returncode}\n{done.stdout}{done.stderr}")
    printed = iter(re.findall(r"<<begin>>\n(.*?)<<end>>\n", done.stdout, re.S))
    for language, content, _ in blocks_of(page):
        output = next(printed) if language == "cpp" else None
        if language == "python" and PYTHON_PACKAGE:
            done = subprocess.run([sys.executable, "-c", content], cwd=folder, capture_output=True,
                                  text=True, stdin=subprocess.DEVNULL,
                                  env=os.environ | {"PYTHONPATH": PYTHON_PACKAGE, "MPLBACKEND": "Agg"})
            if done.returncode != 0:
                sys.exit(f"{page}:\n{content}\n{done.stderr}")
            output = done.stdout
        for line in re.findall(r"^velmar_2d .*", content, re.M) if language == "sh" else []:
            done = subprocess.run("./" + line, shell=True, cwd=folder, capture_output=True, text=True)
            if done.returncode != 0:
                sys.exit(f"{page}: {line}\n{done.stderr}")
            output = (output or "") + done.stdout
        yield output


def timeless(text):
    return re.sub(r"[\d.e-]+ s\b", "? s", text)


def run(page, program, tool, folder):
    for (language, content, expected), output in zip(
            blocks_of(page), outputs_of(page, program, tool, folder)):
        if language == "python" and not PYTHON_PACKAGE:
            continue
        if expected is not None and timeless(output or "") != timeless(expected):
            sys.exit(f"{page}:\n{content}prints\n{output}instead of\n{expected}")
    check_links(page, folder)


def write(page, program, tool, folder):
    with open(page) as file:
        text = file.read()
    begin = 0
    for (language, content, expected), output in zip(
            list(blocks_of(page)), list(outputs_of(page, program, tool, folder))):
        if language == "text":
            continue
        begin = text.index(content, begin) + len(content)
        if expected is not None:
            place = text.index("```text\n", begin) + len("```text\n")
            text = text[:place] + output + text[place + len(expected):]
    with open(page, "w") as file:
        file.write(text)
    for name in os.listdir(folder + "/docs/pictures"):
        shutil.copy(f"{folder}/docs/pictures/{name}", f"{root(page)}/docs/pictures/{name}")


def root(page):
    folder = os.path.dirname(os.path.abspath(page))
    return folder if os.path.basename(folder) != "docs" else os.path.dirname(folder)


def check_links(page, folder):
    with open(page) as file:
        text = FENCE.sub("", file.read())
    drawn = os.listdir(folder + "/docs/pictures")
    pictures = [link for link in re.findall(r"!\[[^\]]*\]\(([^)]+)\)", text)]
    for link in re.findall(r"\]\(([^)#]+)[^)]*\)", text):
        if not link.startswith("http"):
            place = os.path.join(os.path.dirname(os.path.abspath(page)), link)
            if not os.path.exists(place):
                sys.exit(f"{page}: {link} leads nowhere")
    for name in drawn:
        if not any(link.endswith("/" + name) for link in pictures):
            sys.exit(f"{page}: {name} is drawn and not shown")


if __name__ == "__main__":
    {"extract": extract, "run": run, "write": write}[sys.argv[1]](*sys.argv[2:])
