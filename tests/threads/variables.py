"""What the library keeps outside of its meshes: `variables.py ARCHIVE`.

Fails with the names of variables that lie in writable memory and are neither the default mesh nor
tables that are constant once they are filled in.
"""
import re
import subprocess
import sys

DEFAULT_MESH = "velmar_2d::detail::(anonymous namespace)::default_mesh"
ALLOWED = (
    re.escape(DEFAULT_MESH),
    r"velmar_2d::default_mesh\(\)::mesh",  # as an object
    r"velmar_2d::detail::polygon_of\(.*\)::polygons",
)

symbols = subprocess.run(["objdump", "--syms", "--demangle", sys.argv[1]], check=True,
                         capture_output=True, text=True).stdout
# Address, seven columns of flags, section, size, name. Debug symbols stand for whole sections.
line = re.compile(r"[0-9a-f]+ .{7} (\.(?:data|bss|tdata|tbss)\S*)\s[0-9a-f]+ (?:\.hidden )?(.+)")
found = {match[2].removeprefix("guard variable for ")
         for match in map(line.fullmatch, symbols.splitlines())
         if match and not match[1].startswith(".data.rel.ro")
         and match[2] != match[1] and not match[2].startswith("DW.ref.")}
if DEFAULT_MESH not in found:
    sys.exit("the symbols were not understood: there is no default mesh")
others = [name for name in sorted(found) if not any(re.fullmatch(a, name) for a in ALLOWED)]
if others:
    sys.exit("variables outside of the meshes:\n  " + "\n  ".join(others))
print(f"{len(found)} known variables")
