#!/usr/bin/env bash
# From a fresh Debian 12 to the picture of an adaptive mesh: installs what is missing, builds, runs
# the first example.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")"
source cmake/debian_packages.sh

install_packages "${packages_for_the_demo[@]}"
cmake --preset release >/dev/null
cmake --build --preset release --parallel "$(nproc)" --target 01_first_mesh
echo
./build/release/examples/01_first_mesh pictures
echo
echo "Look at $PWD/pictures/01_first_mesh.png"
