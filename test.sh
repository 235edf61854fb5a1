#!/usr/bin/env bash
# From a fresh Debian 12 to the result of every test: installs what is missing, builds with
# sanitizers and with warnings as errors, runs the tests.
#
#   ./test.sh             with g++
#   ./test.sh dev-clang   with clang
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")"
source cmake/debian_packages.sh

preset=${1:-dev}
install_packages "${packages_to_build[@]}" "${packages_to_test[@]}"
if [ "$preset" = dev-clang ]; then install_packages clang; fi
cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset" --parallel "$(nproc)"
ctest --preset "$preset" --parallel "$(nproc)"
