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
  return c;
}

void release_cell(Cell*& c) {
  if (c == nullptr) release_of_missing("c");
  delete c;
  c = nullptr;
  --nb_nodes;
}

}  // namespace velmar_2d::detail
