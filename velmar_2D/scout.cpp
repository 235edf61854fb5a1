// What is remembered of a walk from one update to the next.
#include "velmar_2D/scout.hpp"

#include <new>

namespace velmar_2d::detail {

Trail trail;

void Trail::begin_recording() {
  const auto nodes = static_cast<std::size_t>(nb_nodes);
  try {
    // Meshes grow little by little: not by doubling.
    if (nodes > marks_.capacity()) marks_.reserve(nodes + nodes / 16);
    marks_.resize(nodes);
  } catch (const std::bad_alloc&) {
    forget();  // the walks are slower without it, that is all
  }
  begin_ = marks_.size();
}

void Trail::end_recording() {
  marks_.erase(marks_.begin(), marks_.begin() + static_cast<std::ptrdiff_t>(begin_));
}

}  // namespace velmar_2d::detail
