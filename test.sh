#!/usr/bin/env bash
# From a fresh Debian 12 to the result of the tests: installs what is missing, builds with
# sanitizers and with warnings as errors, runs the tests.
#
#   ./test.sh                   the libraries, the program and the Python package, with g++
#   ./test.sh all               also installations and packages, static analysis, other machines
#   ./test.sh [all] dev-clang   with clang
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")"
source cmake/debian_packages.sh

all=OFF
if [ "${1:-}" = all ]; then all=ON; shift; fi
preset=${1:-dev}
packages=("${packages_to_build[@]}" "${packages_to_test[@]}")
if [ $all = ON ]; then packages+=("${packages_to_test_all[@]}"); fi
if [ "$preset" = dev-clang ]; then packages+=(clang); fi
install_packages "${packages[@]}"
cmake --preset "$preset" -DVELMAR_2D_TEST_ALL=$all >/dev/null
cmake --build --preset "$preset" --parallel "$(nproc)"
ctest --preset "$preset" --parallel "$(nproc)"
