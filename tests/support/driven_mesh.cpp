#include "support/driven_mesh.hpp"

#include "scenarios/scenarios.hpp"

namespace velmar_2d::tests {

void DrivenMesh::make(const Rectangle& rectangle, const Grid& grid) {
  if (!is_free()) {
    own_.emplace(rectangle, grid);
    return;
  }
  next_id = 1;
  update_statistics = {};
  data_interpolation = true;
  init_data_ptr = nullptr;
  n_cell_data = grid.n_cell_data;
  scenarios::set_domain(rectangle.x_min, rectangle.x_max, rectangle.y_min, rectangle.y_max);
  double y_max = 0.0;
  init_mesh(grid.bc_type ? grid.bc_type : scenarios::all_dirichlet, grid.nx, grid.ny,
            grid.subdiv_max, y_max);
}

void DrivenMesh::end() { is_free() ? delete_mesh() : own_.reset(); }

void DrivenMesh::update(const size_function& size) {
  is_free() ? update_mesh_no_init(size) : static_cast<void>(own_->update(size));
}
void DrivenMesh::update(const size_function& size, const init_data_function& init_data) {
  is_free() ? update_mesh_init(size, init_data) : static_cast<void>(own_->update(size, init_data));
}
void DrivenMesh::update_batched(const batch_size_function& sizes) {
  is_free() ? update_mesh_no_init_batched(sizes) : static_cast<void>(own_->update_batched(sizes));
}
void DrivenMesh::update_batched(const batch_size_function& sizes,
                                const init_data_function& init_data) {
  is_free() ? update_mesh_init_batched(sizes, init_data)
            : static_cast<void>(own_->update_batched(sizes, init_data));
}
void DrivenMesh::set_limit(std::int32_t limit) {
  is_free() ? set_subdiv_max(limit) : own_->set_limit(limit);
}
void DrivenMesh::split() { is_free() ? split_sublists() : own_->split_sublists(); }
void DrivenMesh::join() { is_free() ? join_sublists() : own_->join_sublists(); }

std::vector<Vertex> DrivenMesh::proposals_around(Cell& c) {
  if (!is_free()) {
    const Proposals proposals = own_->build_vertex(c);
    return {proposals.begin(), proposals.end()};
  }
  std::array<Vertex, 4> list;
  std::int32_t n = 0;
  build_vertex(&c, list, n);
  return {list.begin(), list.begin() + n};
}

void DrivenMesh::insert(const Vertex& v) {
  const bool odd = v.level % 2 == 1;
  if (is_free()) {
    (odd ? insert_node_odd_level : insert_node_even_level)(v);
  } else {
    odd ? own_->insert_node_odd_level(v) : own_->insert_node_even_level(v);
  }
}

bool DrivenMesh::remove(Cell& c) {
  const bool odd = c.level % 2 == 1;
  if (!is_free()) return odd ? own_->remove_node_odd_level(c) : own_->remove_node_even_level(c);
  Cell* node = &c;
  (odd ? remove_node_odd_level : remove_node_even_level)(node);
  return node == nullptr;
}

}  // namespace velmar_2d::tests
