// The one place that creates nodes and the one that releases them.
#include "velmar_2D/internal.hpp"

#include <limits>
#include <new>

namespace velmar_2d::detail {

Cell* new_cell() {
  if (next_id == std::numeric_limits<std::int32_t>::max()) {
    fatal(
        "(velmar_2D:) ERROR: no identifier is left for a new node\n"
        "        (2147483646 nodes have been created by this process.)");
  }
  auto* c = new (std::nothrow) Cell;
  if (c == nullptr) allocation_failed(sizeof(Cell));
  if (n_cell_data > 0) {
    try {
      c->data.resize(static_cast<std::size_t>(n_cell_data));
    } catch (const std::bad_alloc&) {
      delete c;
      allocation_failed(static_cast<std::size_t>(n_cell_data) * sizeof(double));
    }
  }
  c->id = next_id++;
  ++nb_nodes;
  ++mesh_revision;
  return c;
}

void release_cell(Cell*& c) {
  if (c == nullptr) release_of_missing("c");
  delete c;
  c = nullptr;
  --nb_nodes;
  ++mesh_revision;
}

std::int32_t release_all_nodes() {
  if (lists_are_split()) join_sublists();
  std::int32_t nb_released = 0;
  while (mesh_beg != nullptr) {
    Cell* c = mesh_beg;
    mesh_beg = c->next;
    release_cell(c);
    ++nb_released;
  }
  mesh_end = nullptr;
  for (std::vector<Handle>* ends : {&level_beg, &level_end}) {
    std::fill(ends->begin(), ends->end(), Handle{});
  }
  return nb_released;
}

}  // namespace velmar_2d::detail
