// Adapting the mesh: the entry points, which differ in where the data of new nodes come from and in
// how the wanted spacing is asked for.
#include "velmar_2D/scout.hpp"
#include "velmar_2D/update_mesh_decl.hpp"

namespace velmar_2d {

namespace {

/// The far corner of a regular square, the first one that extract_neighbor_square() tries. No link
/// of the node leads there.
const Cell* probable_far_corner(const Cell& c) {
  if (c.reserve != 4) return nullptr;
  const int to_a = c.level % 2 == 0 ? detail::north : detail::north_east;
  const Cell* a = detail::link(c, to_a).cell();
  return a == nullptr ? nullptr : detail::link(*a, to_a + 2).cell();
}

}  // namespace

void compute_data_at_all_nodes() {
  if (detail::lists_are_split()) join_sublists();
  detail::Scout scout = detail::Scout::forwards();
  scout.begin_stretch(mesh_beg);
  // The scout has asked for the neighbours of this node a while ago, and for its own links before.
  constexpr int nodes_ahead = 2;
  const Cell* ahead = mesh_beg;
  for (int i = 0; i < nodes_ahead && ahead != nullptr; ++i) ahead = ahead->next;
  for (Cell* c = mesh_beg; c != nullptr; c = c->next) {
    scout.advance(true);
    if (ahead != nullptr) {
      __builtin_prefetch(probable_far_corner(*ahead));
      ahead = ahead->next;
    }
    compute_data_at_node(c);
  }
}

namespace detail {

void check_update(bool has_size_fun) {
  require_mesh("update_mesh");
  if (lists_are_split()) join_sublists();
  if (!has_size_fun) fatal("(velmar_2D/update_mesh:) ERROR: arg 'size_fun' is no procedure!");
  update_statistics = {};
}

namespace {

template <typename SizeFunction>
void update_with_init(std::string_view operation, const SizeFunction& size_fun,
                      init_data_function& init_data) {
  const MeshChange change(operation);
  check_update(static_cast<bool>(size_fun));
  if (!init_data && n_cell_data > 0) {
    fatal("(velmar_2D/update_mesh:) ERROR: arg 'init_data' is no procedure!");
  }
  data_interpolation = false;
  init_data_ptr = std::move(init_data);
  compute_data_at_all_nodes();
  update_mesh_body(size_fun);
}

template <typename SizeFunction>
void update_with_interpolation(std::string_view operation, const SizeFunction& size_fun) {
  const MeshChange change(operation);
  check_update(static_cast<bool>(size_fun));
  data_interpolation = true;
  init_data_ptr = nullptr;
  if (n_cell_data > 0) compute_data_at_all_nodes();
  update_mesh_body(size_fun);
}

}  // namespace

}  // namespace detail

void update_mesh_init(const size_function& size_fun, init_data_function init_data) {
  detail::update_with_init("update_mesh_init", size_fun, init_data);
}

void update_mesh_no_init(const size_function& size_fun) {
  detail::update_with_interpolation("update_mesh_no_init", size_fun);
}

void update_mesh_init_batched(const batch_size_function& size_fun, init_data_function init_data) {
  detail::update_with_init("update_mesh_init_batched", size_fun, init_data);
}

void update_mesh_no_init_batched(const batch_size_function& size_fun) {
  detail::update_with_interpolation("update_mesh_no_init_batched", size_fun);
}

}  // namespace velmar_2d
