// Windows that turn out to be too narrow: wider ones are made, with the mesh as it was before.
#include <algorithm>

#include "partition.hpp"

namespace velmar_2d {

/// Twice as wide, if they are not the whole yet. Needs: what all processes have caught together.
void Partition::Parts::widen_windows(const TooNarrow& found) {
  const std::int32_t widest = std::max(grid.nx, grid.ny) - 1;
  if (!options.repairs || messages.nb_processes() == 1 || options.overlap >= widest) throw found;
  options.overlap = std::min(2 * options.overlap, widest);
  ++nb_repairs;
}

std::vector<std::size_t> Partition::Parts::make_again(const PieceNodes& nodes) {
  std::vector<std::size_t> rows;
  for (;;) {
    bool has_moved = false;
    messages.alone([&] {
      find_neighbours();
      grid.subdiv_max = piece->mesh().limit();
      Piece anew(whole, grid, box(), options.overlap);
      anew.keep_ghosts();
      if (!nodes.places.empty()) rows = fill(anew, nodes, has_moved);
      anew.take_settings(*piece);
      anew.take_cells(*piece);
      owned.clear();
      ghosts.clear();
      *piece = std::move(anew);
    });
    has_moved_nodes = messages.together(has_moved ? 1 : 0) > 0;
    try {
      settle();
      break;
    } catch (const TooNarrow& found) {
      widen_windows(found);
    }
  }
  exchange_data();
  return rows;
}

void Partition::Parts::repair(const TooNarrow& found) {
  widen_windows(found);
  if (adapted_by == Adapted::by_update) {
    repair_update();
    return;
  }
  PieceNodes before;
  messages.alone([&] { before = piece->nodes_before(); });
  messages.together();
  make_again(before);
}

}  // namespace velmar_2d
