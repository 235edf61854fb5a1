// Adapting the mesh: the two entry points, which differ in where the data of new nodes come from.
#include "velmar_2D/update_mesh_decl.hpp"

namespace velmar_2d {

namespace detail {

void compute_data_at_all_nodes() {
  for (Cell* c = mesh_beg; c != nullptr; c = c->next) compute_data_at_node(c);
}

void check_update(const size_function& size_fun) {
  require_mesh("update_mesh");
  if (lists_are_split()) join_sublists();
  if (!size_fun) fatal("(velmar_2D/update_mesh:) ERROR: arg 'size_fun' is no procedure!");
  update_statistics = {};
}

}  // namespace detail

void update_mesh_init(const size_function& size_fun, init_data_function init_data) {
  const detail::MeshChange change("update_mesh_init");
  detail::check_update(size_fun);
  if (!init_data && n_cell_data > 0) {
    detail::fatal("(velmar_2D/update_mesh:) ERROR: arg 'init_data' is no procedure!");
  }
  data_interpolation = false;
  init_data_ptr = std::move(init_data);
  detail::compute_data_at_all_nodes();
  detail::update_mesh_body(size_fun);
}

void update_mesh_no_init(const size_function& size_fun) {
  const detail::MeshChange change("update_mesh_no_init");
  detail::check_update(size_fun);
  data_interpolation = true;
  init_data_ptr = nullptr;
  if (n_cell_data > 0) detail::compute_data_at_all_nodes();
  detail::update_mesh_body(size_fun);
}

}  // namespace velmar_2d
