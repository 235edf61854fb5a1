#!/usr/bin/env bash
# From a fresh Debian 12 to the comparison with other libraries: installs what is missing, builds,
# runs every case at about 1e4, 1e5 and 1e6 nodes, prints the table. Takes less than 10 minutes.
#
#   ./bench.sh           leaves build/bench/comparison.csv and comparison.svg
#   ./bench.sh --full    1e7 nodes too: needs 8 GB of memory and an hour
#   ./bench.sh --write   puts the results into docs/performance.md and its picture; also with --full
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")"
source cmake/debian_packages.sh

sizes=1e4,1e5,1e6
page=()
for option in "$@"; do
  case $option in
    --full) sizes=$sizes,1e7 ;;
    --write) page=(docs/performance.md) ;;
    *) sed -n 's/^# \{0,1\}//p' "$0" >&2; exit 2 ;;
  esac
done

install_packages "${packages_to_compare[@]}"
cmake --preset bench >/dev/null
cmake --build --preset bench --parallel "$(nproc)" --target velmar_2d_peers velmar_2d_plot
python3 benchmarks/peers/compare.py build/bench/benchmarks/peers/velmar_2d_peers \
  build/bench/comparison.csv --sizes "$sizes"

picture=build/bench/comparison.svg
if [ ${#page[@]} -gt 0 ]; then picture=docs/pictures/performance.svg; fi
python3 benchmarks/peers/write_tables.py build/bench/comparison.csv \
  build/bench/benchmarks/peers/velmar_2d_plot "$picture" "${page[@]}"
echo
echo "Look at $PWD/$picture"
