#!/bin/sh
# Installs the package with pip into an environment of its own, from a copy of the sources and
# without a network, and uses it from elsewhere.
#
#   check_pip.sh SOURCE PYTHON COMPILER FOLDER VERSION
set -eu
source=$1 python=$2 compiler=$3 folder=$4 version=$5

rm -rf "$folder"
mkdir -p "$folder/source"
cd "$source"
cp -r CMakeLists.txt README.md pyproject.toml setup.py cmake docs hdf5 io numerics python velmar_2D "$folder/source"
"$python" -m venv --system-site-packages "$folder/venv"
# Unoptimised: this is about what is installed, not how fast it is.
CXX=$compiler CMAKE_ARGS='-DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS_DEBUG=-O0' \
  PIP_NO_INDEX=1 PIP_DISABLE_PIP_VERSION_CHECK=1 \
  "$folder/venv/bin/pip" install --no-build-isolation "$folder/source"

cd "$folder"
left=$(ls source)
unset PYTHONPATH
venv/bin/python - "$folder" "$version" <<'EOF'
import sys, velmar_2d
folder, version = sys.argv[1:]
assert velmar_2d.__file__.startswith(folder + "/venv"), velmar_2d.__file__
assert velmar_2d.__version__ == version, velmar_2d.__version__
with velmar_2d.Mesh(nx=9, subdiv_max=6) as mesh:
    mesh.update(lambda x, y, *_: 0.05 + 0.1 * abs(x - y), lambda x, y: x * y)
    assert len(mesh) > 200 and mesh.check() == []
    mesh.write_vtu("mesh.vtu")
EOF
test -s mesh.vtu
test -f venv/lib/python3*/site-packages/velmar_2d/py.typed
test -f venv/lib/python3*/site-packages/velmar_2d/_core.pyi
[ "$left" = "$(printf 'CMakeLists.txt\nREADME.md\nbuild\ncmake\ndocs\nhdf5\nio\nnumerics\npyproject.toml\npython\nsetup.py\nvelmar_2D')" ] ||
  { echo "pip left other things in the sources: $left"; exit 1; }
[ -z "$(find source/python -name '*.egg-info')" ]
venv/bin/pip uninstall -q -y velmar_2d
! venv/bin/python -c 'import velmar_2d' 2>/dev/null
