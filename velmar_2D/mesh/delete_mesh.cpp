// Releasing the whole mesh.
#include <cstdio>

#include "velmar_2D/mesh/state.hpp"

namespace velmar_2d::detail {

void delete_mesh(State& state) {
  const std::int32_t k = release_all_nodes(state);
  // Deleting the mesh must work where no memory is left, so no std::string.
  std::array<char, 64> text;
  std::snprintf(text.data(), text.size(), " nb of deallocated nodes: %ld", static_cast<long>(k));
  message(state.handlers, text.data());
  for (auto [array, name] :
       {std::pair{&state.level_beg, "level_beg"}, std::pair{&state.level_end, "level_end"}}) {
    if (array->empty()) release_of_missing(state.handlers, name);
    std::vector<Handle>().swap(*array);
  }
}

}  // namespace velmar_2d::detail
