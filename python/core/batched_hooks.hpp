// Functions of Python's that are told of nodes that come and go, with arrays.
#pragma once

#include <unordered_map>
#include <unordered_set>

#include "python/core/core.hpp"

namespace velmar_2d::python {

/// While this lasts the mesh tells `inserted` and `removing`, each None or a function, of many
/// nodes at once: before sizes are asked for again, and where one of them is about to become part
/// of another's story.
class BatchedHooks {
 public:
  BatchedHooks(Mesh& mesh, py::object inserted, py::object removing);
  ~BatchedHooks() { mesh_.set_node_hooks({}); }
  BatchedHooks(const BatchedHooks&) = delete;
  BatchedHooks& operator=(const BatchedHooks&) = delete;

  bool are_there() const { return !inserted_.is_none() || !removing_.is_none(); }
  /// Tells what is still to be told. Takes Python's lock where that is needed.
  void flush();

 private:
  static constexpr std::size_t most_parents = 4, most_neighbours = 8;
  struct NewNode {
    Cell* node;
    std::array<Cell*, most_parents> parents;
  };
  /// A copy of what goes, with the rows of its neighbours.
  struct GoneNode {
    double x, y;
    std::array<std::int32_t, most_neighbours> neighbours;
  };

  void note_new(Cell& node, std::span<Cell* const> parents);
  void note_gone(const Cell& node, std::span<Cell* const> neighbours);
  void tell_new();
  void tell_gone();
  std::int32_t row_of(Cell* neighbour);

  Mesh& mesh_;
  py::object inserted_, removing_;
  std::vector<NewNode> new_;
  std::unordered_set<const Cell*> untold_;
  std::vector<GoneNode> gone_;
  std::vector<double> gone_data_;
  std::vector<Cell*> heirs_;
  std::unordered_map<const Cell*, std::int32_t> rows_;
};

}  // namespace velmar_2d::python
