// The one place that creates nodes and the one that releases them.
#include <limits>
#include <new>

#include "velmar_2D/roll.hpp"
#include "velmar_2D/slots.hpp"

namespace velmar_2d::detail {

Cell* new_cell(std::int32_t stretch) {
  if (next_id == std::numeric_limits<std::int32_t>::max()) {
    fatal(
        "(velmar_2D:) ERROR: no identifier is left for a new node\n"
        "        (2147483646 nodes have been created by this process.)");
  }
  auto* c = new (take_slot(stretch)) Cell;
  if (n_cell_data > 0) {
    try {
      c->data.resize(static_cast<std::size_t>(n_cell_data));
    } catch (const std::bad_alloc&) {
      c->~Cell();
      give_slot(c);
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
  c->~Cell();
  give_slot(c);
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
  return_slots();
  trail.forget();
  roll.forget();
  links_may_be_one_way = false;
  return nb_released;
}

}  // namespace velmar_2d::detail
