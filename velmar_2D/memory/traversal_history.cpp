#include <new>

#include "velmar_2D/memory/memory.hpp"

namespace velmar_2d::detail {

void TraversalHistory::begin_recording(std::int32_t nb_nodes) {
  const auto nodes = static_cast<std::size_t>(nb_nodes);
  try {
    // Meshes grow little by little: not by doubling.
    if (nodes > entries_.capacity()) entries_.reserve(nodes + nodes / 16);
    entries_.resize(nodes);
  } catch (const std::bad_alloc&) {
    forget();  // the walks are slower without it, that is all
  }
  begin_ = entries_.size();
}

void TraversalHistory::end_recording() {
  entries_.erase(entries_.begin(), entries_.begin() + static_cast<std::ptrdiff_t>(begin_));
}

}  // namespace velmar_2d::detail
