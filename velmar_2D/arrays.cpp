// The mesh as arrays.
#include "velmar_2D/arrays.hpp"

#include <string>

#include "velmar_2D/arrays/arrays.hpp"

namespace velmar_2d {

namespace detail {

/// What a MeshArrays holds.
struct ArraysOfMesh {
  std::shared_ptr<State*> mesh;        ///< leads to none once it was deleted
  std::unique_ptr<MeshTables> tables;  ///< none where they could not be made
  std::uint64_t revision = 0;          ///< of the mesh that they are those of
  std::vector<Table<double>> values;
  bool has_values = false;  ///< for the nodes of the tables
  std::int32_t threads = 1;
};

void ArraysDeleter::operator()(ArraysOfMesh* arrays) const { delete arrays; }

}  // namespace detail

namespace {

using detail::ArraysOfMesh, detail::State;

std::string error(const std::string& text) { return "(velmar_2D/MeshArrays:) ERROR: " + text; }

State& mesh_of(const ArraysOfMesh* arrays) {
  if (arrays == nullptr) throw Error(error("these arrays have been moved away"));
  if (*arrays->mesh == nullptr) throw Error(error("the mesh of these arrays has been deleted"));
  return **arrays->mesh;
}

/// The mesh, where the nodes of the tables are its nodes.
State& current_mesh_of(const ArraysOfMesh* arrays) {
  State& state = mesh_of(arrays);
  if (arrays->tables == nullptr || arrays->revision != state.mesh_revision) {
    fatal(state.handlers,
          error("the arrays are of revision " + std::to_string(arrays->revision) +
                " of the mesh, which is at revision " + std::to_string(state.mesh_revision) +
                "\n        (update() makes them anew.)"));
  }
  return state;
}

void require_value(const State& state, std::int32_t value) {
  if (value >= 0 && value < state.n_cell_data) return;
  fatal(state.handlers, error("there is no value " + std::to_string(value) + ": the nodes have " +
                              std::to_string(state.n_cell_data)));
}

void require_size(const State& state, std::size_t given, std::size_t nodes) {
  if (given == nodes) return;
  fatal(state.handlers, error("an array of " + std::to_string(given) + " values was given for " +
                              std::to_string(nodes) + " nodes"));
}

void require_values(const ArraysOfMesh* arrays) {
  if (arrays != nullptr && arrays->has_values) return;
  fatal(mesh_of(arrays).handlers,
        error("there are no values of these nodes\n        (pull() brings them.)"));
}

/// Exhausted memory ends the work of the mesh as it always does.
template <typename Work>
void with_memory_of(const State& state, std::size_t bytes, const Work& work) {
  try {
    work();
  } catch (const std::bad_alloc&) {
    allocation_failed(state, bytes);
  }
}

}  // namespace

MeshArrays::MeshArrays(Mesh& mesh, int threads) : arrays_(new ArraysOfMesh) {
  arrays_->mesh = mesh.state().self;
  arrays_->threads = threads;
  update();
}

bool MeshArrays::update() {
  const State& state = mesh_of(arrays_.get());
  if (!state.in_use_by.empty()) {
    fatal(state.handlers, error("the mesh is in use by " + std::string(state.in_use_by) +
                                "\n        (Callbacks must not make arrays of it.)"));
  }
  if (is_current()) return false;
  constexpr std::size_t bytes_of_node = 80;
  arrays_->has_values = false;
  try {
    with_memory_of(state, static_cast<std::size_t>(state.nb_nodes) * bytes_of_node, [&] {
      if (arrays_->tables == nullptr) arrays_->tables = std::make_unique<detail::MeshTables>();
      make_tables(state, *arrays_->tables, arrays_->threads);
    });
  } catch (...) {
    arrays_->tables.reset();
    show_tables();
    throw;
  }
  arrays_->revision = state.mesh_revision;
  show_tables();
  return true;
}

void MeshArrays::show_tables() {
  if (arrays_->tables == nullptr) {
    nodes_ = {};
    positions_ = areas_ = {};
    links_ = levels_ = shapes_ = {};
    known_ = {};
    rows_ = {};
    return;
  }
  const detail::MeshTables& tables = *arrays_->tables;
  nodes_ = tables.nodes.all();
  positions_ = tables.position.all();
  areas_ = tables.area.all();
  links_ = tables.links.all();
  levels_ = tables.level.all();
  shapes_ = tables.shape.all();
  known_ = tables.known.all();
  rows_ = tables.weights;
}

bool MeshArrays::is_current() const {
  return arrays_ != nullptr && *arrays_->mesh != nullptr && arrays_->tables != nullptr &&
         arrays_->revision == (*arrays_->mesh)->mesh_revision;
}

std::uint64_t MeshArrays::revision() const { return arrays_ != nullptr ? arrays_->revision : 0; }

std::int32_t MeshArrays::number(const Cell& c) const {
  if (nodes_.empty()) return -1;
  const std::int32_t number = *arrays_->tables->numbers.lookup().place_of(&c);
  return number >= 0 && nodes_[static_cast<std::size_t>(number)] == &c ? number : -1;
}

CellFaces MeshArrays::faces(std::int32_t i) const {
  return faces_of(*arrays_->tables, static_cast<std::size_t>(i));
}

CellShape MeshArrays::shape(std::int32_t i) const {
  const auto row = static_cast<std::size_t>(shapes_[static_cast<std::size_t>(i)]);
  if (row >= detail::nb_known_shapes) return {};
  const detail::KnownShape& shape = detail::known_shapes()[row];
  return {shape.type, shape.shift};
}

// ---------------------------------------------------------------------------------------------
// Data values
// ---------------------------------------------------------------------------------------------

void MeshArrays::pull() {
  const State& state = current_mesh_of(arrays_.get());
  std::vector<detail::Table<double>>& tables = arrays_->values;
  arrays_->has_values = false;
  const auto n = static_cast<std::size_t>(std::max(0, state.n_cell_data));
  with_memory_of(state, n * nodes_.size() * sizeof(double), [&] {
    tables.resize(n);
    std::vector<std::span<double>> into;
    for (detail::Table<double>& table : tables) {
      table.resize(nodes_.size());
      into.push_back(table.all());
    }
    pull_values(*arrays_->tables, 0, into, arrays_->threads);
  });
  arrays_->has_values = true;
}

void MeshArrays::push() {
  const State& state = current_mesh_of(arrays_.get());
  require_values(arrays_.get());
  with_memory_of(state, arrays_->values.size() * sizeof(double), [&] {
    std::vector<std::span<const double>> from;
    for (const detail::Table<double>& table : arrays_->values) from.push_back(table.all());
    push_values(*arrays_->tables, 0, from, arrays_->threads);
  });
}

std::span<double> MeshArrays::values_of(std::int32_t value) const {
  require_values(arrays_.get());
  if (value < 0 || static_cast<std::size_t>(value) >= arrays_->values.size()) {
    require_value(mesh_of(arrays_.get()), value);
  }
  return arrays_->values[static_cast<std::size_t>(value)].all();
}

std::span<double> MeshArrays::values(std::int32_t value) { return values_of(value); }
std::span<const double> MeshArrays::values(std::int32_t value) const { return values_of(value); }

void MeshArrays::pull(std::int32_t value, std::span<double> into) const {
  const State& state = current_mesh_of(arrays_.get());
  require_value(state, value);
  require_size(state, into.size(), nodes_.size());
  const std::array tables = {into};
  with_memory_of(state, sizeof(double), [&] {
    pull_values(*arrays_->tables, static_cast<std::size_t>(value), tables, arrays_->threads);
  });
}

void MeshArrays::push(std::int32_t value, std::span<const double> from) {
  const State& state = current_mesh_of(arrays_.get());
  require_value(state, value);
  require_size(state, from.size(), nodes_.size());
  const std::array tables = {from};
  with_memory_of(state, sizeof(double), [&] {
    push_values(*arrays_->tables, static_cast<std::size_t>(value), tables, arrays_->threads);
  });
}

}  // namespace velmar_2d
