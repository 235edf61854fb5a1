// Adapting the mesh: the entry points, which differ in where the data of new nodes come from and in
// how the wanted spacing is asked for.
#include <string>

#include "velmar_2D/adapt/update_mesh_decl.hpp"

namespace velmar_2d::detail {

namespace {

void begin_update(State& state, std::string_view operation, bool has_size_fun) {
  require_mesh(state, operation);
  if (state.lists_are_split()) join_sublists(state);
  if (!has_size_fun) {
    fatal(state.handlers,
          "(velmar_2D/" + std::string(operation) + ":) ERROR: arg 'size_fun' is no procedure!");
  }
  state.update_statistics = {};
}

}  // namespace

/// Data of new nodes come from init_data.
void begin_with_init(State& state, std::string_view operation, bool has_size_fun,
                     init_data_function& init_data) {
  begin_update(state, operation, has_size_fun);
  if (!init_data && state.n_cell_data > 0) {
    fatal(state.handlers,
          "(velmar_2D/" + std::string(operation) + ":) ERROR: arg 'init_data' is no procedure!");
  }
  state.data_interpolation = false;
  state.init_data_ptr = std::move(init_data);
}

/// Data of new nodes are interpolated.
void begin_with_interpolation(State& state, std::string_view operation, bool has_size_fun) {
  begin_update(state, operation, has_size_fun);
  state.data_interpolation = true;
  state.init_data_ptr = nullptr;
}

namespace {

template <typename SizeFunction>
void update_with_init(State& state, const SizeFunction& size_fun, init_data_function& init_data) {
  begin_with_init(state, "update_mesh", static_cast<bool>(size_fun), init_data);
  compute_data_at_all_nodes(state, 1);
  update_mesh_body(state, size_fun);
}

template <typename SizeFunction>
void update_with_interpolation(State& state, const SizeFunction& size_fun) {
  begin_with_interpolation(state, "update_mesh", static_cast<bool>(size_fun));
  if (state.n_cell_data > 0) compute_data_at_all_nodes(state, 1);
  update_mesh_body(state, size_fun);
}

}  // namespace

void update_mesh_init(State& state, const size_function& size_fun, init_data_function init_data) {
  update_with_init(state, size_fun, init_data);
}

void update_mesh_init(State& state, const batch_size_function& size_fun,
                      init_data_function init_data) {
  update_with_init(state, size_fun, init_data);
}

void update_mesh_no_init(State& state, const size_function& size_fun) {
  update_with_interpolation(state, size_fun);
}

void update_mesh_no_init(State& state, const batch_size_function& size_fun) {
  update_with_interpolation(state, size_fun);
}

}  // namespace velmar_2d::detail
