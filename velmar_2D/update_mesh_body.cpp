// The two passes of an adaptation.
#include "velmar_2D/update_mesh_decl.hpp"

namespace velmar_2d::detail {

double required_level(const Cell& c, const size_function& size_fun) {
  const double required_size =
      size_fun(c.x, c.y, std::span(c.data.data(), c.data.size()), c.grad_data, c.grad2_data);
  return 2.0 * detail::log2(dist_0 / required_size);
}

namespace {

/// Stretches upwards, each from its first node: nodes that a stretch gains from the ones below are
/// visited in the same pass.
void refine(const size_function& size_fun) {
  const std::int32_t last_level = level_max;
  for (std::int32_t l = 0; l <= last_level; ++l) {
    Cell* c = level_beg[static_cast<std::size_t>(l)].next;
    while (c != nullptr) {
      const std::int32_t id_save = c->id;
      if (required_level(*c, size_fun) > c->level) refine_cell(c, false);
      if (c != nullptr && c->level < level_max) refine_cell(c, true);
      if (c != nullptr && c->id == id_save) c = c->next;
    }
  }
}

/// Stretches downwards, each from its last node. The predecessor is taken before a node is removed.
void coarsen(const size_function& size_fun) {
  for (std::int32_t l = level_max; l >= 1; --l) {
    Cell* c = level_end[static_cast<std::size_t>(l)].next;
    while (c != nullptr) {
      Cell* tmp = c;
      c = c->prev;
      if (tmp->level == 0) continue;
      if (!(tmp->level > coarsening_margin + required_level(*tmp, size_fun))) continue;
      if (tmp->level % 2 != 1) {
        remove_node_even_level(tmp);
      } else {
        remove_node_odd_level(tmp);
      }
    }
  }
}

}  // namespace

void update_mesh_body(const size_function& size_fun) {
  split_sublists();
  refine(size_fun);
  coarsen(size_fun);
  join_sublists();
}

}  // namespace velmar_2d::detail
