#include "python/core/batched_hooks.hpp"

#include <limits>

namespace velmar_2d::python {

namespace {

/// The values of a node as a row; NaN where there is no node.
double* copy_row(const Cell* c, std::size_t width, double* out) {
  if (c == nullptr) return std::fill_n(out, width, std::numeric_limits<double>::quiet_NaN());
  return std::copy(c->data.begin(), c->data.end(), out);
}

py::ssize_t signed_size(std::size_t n) { return static_cast<py::ssize_t>(n); }

}  // namespace

BatchedHooks::BatchedHooks(Mesh& mesh, py::object inserted, py::object removing)
    : mesh_(mesh), inserted_(std::move(inserted)), removing_(std::move(removing)) {
  NodeHooks hooks;
  // Both are noted where one is asked for: a node must not go before it has been told of.
  if (!inserted_.is_none()) {
    hooks.inserted = [this](Cell& node, std::span<Cell* const> parents) {
      note_new(node, parents);
    };
  }
  if (are_there()) {
    hooks.removing = [this](Cell& node, std::span<Cell* const> neighbours) {
      note_gone(node, neighbours);
    };
  }
  mesh_.set_node_hooks(std::move(hooks));
}

void BatchedHooks::flush() {
  tell_new();
  tell_gone();
}

void BatchedHooks::note_new(Cell& node, std::span<Cell* const> parents) {
  tell_gone();  // what goes leaves its values to nodes that these are taken from
  NewNode noted{&node, {}};
  for (std::size_t i = 0; i < parents.size(); ++i) {
    if (untold_.contains(parents[i])) tell_new();
    noted.parents[i] = parents[i];
  }
  new_.push_back(noted);
  untold_.insert(&node);
}

void BatchedHooks::note_gone(const Cell& node, std::span<Cell* const> neighbours) {
  tell_new();
  if (removing_.is_none()) return;
  if (rows_.contains(&node)) tell_gone();
  GoneNode noted{node.x, node.y, {}};
  noted.neighbours.fill(-1);
  for (std::size_t i = 0; i < neighbours.size(); ++i) noted.neighbours[i] = row_of(neighbours[i]);
  gone_.push_back(noted);
  gone_data_.insert(gone_data_.end(), node.data.begin(), node.data.end());
}

std::int32_t BatchedHooks::row_of(Cell* neighbour) {
  const auto [entry, is_new] = rows_.emplace(neighbour, static_cast<std::int32_t>(heirs_.size()));
  if (is_new) heirs_.push_back(neighbour);
  return entry->second;
}

void BatchedHooks::tell_new() {
  if (new_.empty()) return;
  const py::gil_scoped_acquire python;
  const auto width = static_cast<std::size_t>(mesh_.n_cell_data());
  const py::ssize_t n = signed_size(new_.size()), k = signed_size(width);
  Doubles x(n), y(n), data({n, k}), parents({n, signed_size(most_parents), k});
  double *out_x = x.mutable_data(), *out_y = y.mutable_data(), *out_data = data.mutable_data(),
         *out_parents = parents.mutable_data();
  for (const NewNode& noted : new_) {
    *out_x++ = noted.node->x;
    *out_y++ = noted.node->y;
    out_data = copy_row(noted.node, width, out_data);
    for (const Cell* parent : noted.parents) out_parents = copy_row(parent, width, out_parents);
  }
  inserted_(x, y, data, parents);
  const double* values = data.data();
  for (const NewNode& noted : new_) {
    std::copy_n(values, width, noted.node->data.begin());
    values += width;
    if (width > 0) mesh_.compute_derivatives(*noted.node);
  }
  new_.clear();
  untold_.clear();
}

void BatchedHooks::tell_gone() {
  if (gone_.empty()) return;
  const py::gil_scoped_acquire python;
  const auto width = static_cast<std::size_t>(mesh_.n_cell_data());
  const py::ssize_t n = signed_size(gone_.size()), m = signed_size(heirs_.size()),
                    k = signed_size(width);
  Doubles x(n), y(n), data({n, k}), around({m, k});
  py::array_t<std::int32_t> rows({n, signed_size(most_neighbours)});
  double *out_x = x.mutable_data(), *out_y = y.mutable_data(), *out_around = around.mutable_data();
  std::int32_t* out_rows = rows.mutable_data();
  for (const GoneNode& noted : gone_) {
    *out_x++ = noted.x;
    *out_y++ = noted.y;
    out_rows = std::copy(noted.neighbours.begin(), noted.neighbours.end(), out_rows);
  }
  std::copy(gone_data_.begin(), gone_data_.end(), data.mutable_data());
  for (const Cell* heir : heirs_) out_around = copy_row(heir, width, out_around);
  removing_(x, y, data, around, rows);
  const double* values = around.data();
  for (Cell* heir : heirs_) {
    std::copy_n(values, width, heir->data.begin());
    values += width;
  }
  gone_.clear();
  gone_data_.clear();
  heirs_.clear();
  rows_.clear();
}

}  // namespace velmar_2d::python
