// Releasing the whole mesh.
#include <cstdio>

#include "velmar_2D/internal.hpp"

namespace velmar_2d {

void delete_mesh() {
  const detail::MeshChange change("delete_mesh");
  const std::int32_t k = detail::release_all_nodes();
  // Deleting the mesh must work where no memory is left, so no std::string.
  std::array<char, 64> text;
  std::snprintf(text.data(), text.size(), " nb of deallocated nodes: %ld", static_cast<long>(k));
  detail::message(text.data());
  for (auto [array, name] :
       {std::pair{&level_beg, "level_beg"}, std::pair{&level_end, "level_end"}}) {
    if (array->empty()) detail::release_of_missing(name);
    std::vector<Handle>().swap(*array);
  }
}

}  // namespace velmar_2d
