#!/usr/bin/env bash
# From a fresh Debian 12 to the comparison with other libraries: installs what is missing, builds,
# runs every case at about 1e4, 1e5 and 1e6 nodes, prints the table. Takes less than 10 minutes.
#
#   ./bench.sh           leaves build/bench/comparison.csv and comparison.svg
#   ./bench.sh --full    1e7 nodes too: needs 8 GB of memory and an hour
#   ./bench.sh --write   puts the results into docs/performance.md and its picture; also with --full
#
#   ./bench.sh --solvers          one equation solved with us, on a uniform grid, with p4est and with
#                                 deal.II: time against error, in less than 10 minutes too
#   ./bench.sh --solvers --write  puts that into docs/solvers.md and its pictures
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")"
source cmake/debian_packages.sh

sizes=1e4,1e5,1e6
page=()
solvers=no
for option in "$@"; do
  case $option in
    --full) sizes=$sizes,1e7 ;;
    --solvers) solvers=yes ;;
    --write) page=(docs/performance.md) ;;
    *) sed -n 's/^# \{0,1\}//p' "$0" >&2; exit 2 ;;
  esac
done

if [ $solvers = yes ]; then
  install_packages "${packages_to_compare[@]}" libdeal.ii-dev
  cmake --preset bench -DVELMAR_2D_BUILD_SOLVERS=ON >/dev/null
  cmake --build --preset bench --parallel "$(nproc)" --target velmar_2d_solvers velmar_2d_plot
  programs=build/bench/benchmarks
  python3 benchmarks/solvers/run.py $programs/solvers build/bench/solvers.csv \
    --pictures build/bench/solvers_cells
  pictures=build/bench
  if [ ${#page[@]} -gt 0 ]; then page=(docs/solvers.md); pictures=docs/pictures; fi
  python3 benchmarks/solvers/write_page.py build/bench/solvers.csv \
    $programs/peers/velmar_2d_plot $programs/solvers/velmar_2d_cells build/bench/solvers_cells \
    $pictures "${page[@]}"
  echo "Look at $PWD/$pictures/solvers_*"
  exit
fi

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
