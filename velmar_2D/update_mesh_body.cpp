// The two passes of an adaptation.
#include "velmar_2D/update_mesh_decl.hpp"

namespace velmar_2d::detail {

double required_level(const Cell& c, const size_function& size_fun) {
  ++update_statistics.visited;
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

/// Every node that came or went is one step of mesh_revision: with the change of their number that
/// gives both counts, also where the update is left by an exception.
class CountAtEnd {
 public:
  CountAtEnd() = default;
  CountAtEnd(const CountAtEnd&) = delete;
  CountAtEnd& operator=(const CountAtEnd&) = delete;
  ~CountAtEnd() {
    const auto changes = static_cast<std::int64_t>(mesh_revision - revision_before_);
    const std::int64_t growth = std::int64_t{nb_nodes} - nb_nodes_before_;
    update_statistics.inserted = (changes + growth) / 2;
    update_statistics.removed = (changes - growth) / 2;
  }

 private:
  std::uint64_t revision_before_ = mesh_revision;
  std::int32_t nb_nodes_before_ = nb_nodes;
};

}  // namespace

void update_mesh_body(const size_function& size_fun) {
  const CountAtEnd count_at_end;
  const JoinAtEnd join_at_end;
  split_sublists();
  refine(size_fun);
  coarsen(size_fun);
}

}  // namespace velmar_2d::detail
