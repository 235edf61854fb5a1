"""Writes the reference of the Python package from the docstrings in its sources.

    python.py FOLDER PAGE     FOLDER holds the modules; PAGE is what doxygen reads
"""
import ast
import pathlib
import sys

ORDER = ["mesh.py", "nodes.py", "links.py"]
FIRST = "Mesh"
MODULES = ["numerics", "mpi"]


def public(parts):
    kinds = (ast.ClassDef, ast.FunctionDef)
    return [part for part in parts if isinstance(part, kinds) and not part.name.startswith("_")]


def signature(function, owner):
    arguments = function.args
    if owner and arguments.args and arguments.args[0].arg in ("self", "cls"):
        arguments.args.pop(0)
    text = f"{owner}{function.name}({ast.unparse(arguments)})"
    return text + (f" -> {ast.unparse(function.returns)}" if function.returns else "")


def described(part, lines, heading, anchor, shown):
    lines += [f"{heading} {part.name} {{#{anchor}}}", "", "```", shown, "```", ""]
    if text := ast.get_docstring(part):
        lines += ["```", text, "```", ""]


def describe(part, lines, module="velmar_2d."):
    anchor = "python_" + module.partition(".")[2].replace(".", "_") + part.name
    if isinstance(part, ast.FunctionDef):
        described(part, lines, "##", anchor, signature(part, module))
        return
    members = public(part.body)
    made = [m for m in part.body if isinstance(m, ast.FunctionDef) and m.name == "__init__"]
    fields = [ast.unparse(f) for f in part.body if isinstance(f, ast.AnnAssign)]
    shown = f"class {module}{part.name}"
    if made:
        made[0].name, made[0].returns = part.name, None
        shown = signature(made[0], module)
    elif fields:
        shown += "(" + ", ".join(fields) + ")"
    described(part, lines, "##", anchor, shown)
    for member in members:
        names = [ast.unparse(d) for d in member.decorator_list]
        is_value = any(name == "property" or name.endswith("cached_property") for name in names)
        if any(name.endswith(".setter") for name in names):
            continue
        owner = f"{part.name.lower()}."
        shown = signature(member, owner)
        if is_value:
            shown = shown.replace("()", "", 1)
        described(member, lines, "###", f"{anchor}_{member.name}", shown)


def main(folder, page):
    lines = ["# Reference of the Python package {#python_reference}", "",
             "How it is used: \\ref md_docs_python \"From Python\".", ""]
    exported = ast.parse((folder / "__init__.py").read_text())
    lines += ["```", ast.get_docstring(exported), "```", ""]
    shown = {name.asname or name.name for part in exported.body if isinstance(part, ast.ImportFrom)
             for name in part.names}
    parts = [part for module in ORDER
             for part in public(ast.parse((folder / module).read_text()).body)
             if part.name in shown]
    for part in sorted(parts, key=lambda part: part.name != FIRST):
        describe(part, lines)
    for name in MODULES:
        module = ast.parse((folder / f"{name}.py").read_text())
        lines += [f"# velmar_2d.{name} {{#python_{name}}}", "", "```", ast.get_docstring(module), "```", ""]
        for part in public(module.body):
            describe(part, lines, f"velmar_2d.{name}.")
    pathlib.Path(page).write_text("\n".join(lines) + "\n")


if __name__ == "__main__":
    main(pathlib.Path(sys.argv[1]), sys.argv[2])
