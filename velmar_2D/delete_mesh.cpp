// Releasing the whole mesh.
#include <string>

#include "velmar_2D/internal.hpp"

namespace velmar_2d {

void delete_mesh() {
  if (detail::lists_are_split()) join_sublists();
  std::int32_t k = 0;
  while (mesh_beg != nullptr) {
    Cell* tmp = mesh_beg;
    mesh_beg = tmp->next;
    detail::release_cell(tmp);
    ++k;
  }
  mesh_end = nullptr;
  detail::return_node_memory();
  detail::message(" nb of deallocated nodes: " + std::to_string(k));
  for (auto [array, name] :
       {std::pair{&level_beg, "level_beg"}, std::pair{&level_end, "level_end"}}) {
    if (array->empty()) detail::release_of_missing(name);
    std::vector<Handle>().swap(*array);
  }
  nb_nodes = 0;
}

}  // namespace velmar_2d
