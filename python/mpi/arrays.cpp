// The nodes of a process as numpy arrays: owned ones in the order of owned(), then ghosts.
#include <algorithm>

#include "python/mpi/core_partition.hpp"

namespace velmar_2d::python {

namespace {

using Cells = std::span<Cell* const>;

template <typename T>
py::array_t<T> table(std::size_t rows, std::size_t columns) {
  return py::array_t<T>({static_cast<py::ssize_t>(rows), static_cast<py::ssize_t>(columns)});
}

/// Defines an array with a value for each owned node, and for ghosts too.
template <typename Value, typename ValueOf>
void define(py::class_<CorePartition>& partition, const char* name, bool with_ghosts,
            ValueOf value_of) {
  partition.def(name, [with_ghosts, value_of](CorePartition& core) {
    Partition& nodes = core.at_rest();
    const std::size_t n = nodes.owned().size() + (with_ghosts ? nodes.ghosts().size() : 0);
    py::array_t<Value> array(static_cast<py::ssize_t>(n));
    Value* out = array.mutable_data();
    for (Cell* c : nodes.owned()) *out++ = value_of(nodes, *c);
    if (!with_ghosts) return array;
    for (Cell* c : nodes.ghosts()) *out++ = value_of(nodes, *c);
    return array;
  });
}

py::array_t<double> positions(CorePartition& core) {
  const Partition& partition = core.at_rest();
  const Cells owned = partition.owned(), ghosts = partition.ghosts();
  auto array = table<double>(owned.size() + ghosts.size(), 2);
  double* out = array.mutable_data();
  for (const Cells nodes : {owned, ghosts}) {
    for (const Cell* c : nodes) {
      *out++ = c->x;
      *out++ = c->y;
    }
  }
  return array;
}

/// A record stands for the side that its direction leads to; of the two sides of a corner, for the
/// one that a straight link of the node tells.
std::int32_t code_of(NeighbourLink there, Direction d, const Cell& c) {
  if (const Cell* linked = there.cell()) return linked->used;
  const Boundary* record = there.boundary();
  if (record == nullptr) return no_link;
  constexpr std::array<Direction, 4> straight = {Direction::north, Direction::east,
                                                 Direction::south, Direction::west};
  for (const Direction side : straight) {
    if (link(c, side).boundary() == record) return side_code(side, record->bc_type);
  }
  return side_code(d, record->bc_type);
}

/// Of owned nodes; numbers count owned ones, then ghosts. Marks the nodes.
py::array_t<std::int32_t> link_table(CorePartition& core) {
  const Partition& partition = core.at_rest();
  std::int32_t number = 0;
  for (Cell* c : partition.owned()) c->used = number++;
  for (Cell* c : partition.ghosts()) c->used = number++;
  auto array = table<std::int32_t>(partition.owned().size(), 8);
  std::int32_t* out = array.mutable_data();
  for (const Cell* c : partition.owned()) {
    for (const Direction d : directions) *out++ = code_of(link(*c, d), d, *c);
  }
  return array;
}

py::array_t<double> weights(CorePartition& core) {
  const Partition& partition = core.at_rest();
  auto array = table<double>(partition.owned().size(), 8);
  double* out = array.mutable_data();
  for (const Cell* c : partition.owned()) {
    const CellFaces faces = partition.mesh().faces(*c);
    for (std::size_t d = 0; d < 8; ++d) {
      *out++ = faces.length[d] > 0.0 ? faces.length[d] / faces.distance[d] : 0.0;
    }
  }
  return array;
}

py::array_t<double> data(CorePartition& core) {
  const Partition& partition = core.at_rest();
  auto array = table<double>(partition.owned().size(),
                             static_cast<std::size_t>(partition.mesh().n_cell_data()));
  double* out = array.mutable_data();
  for (const Cell* c : partition.owned()) out = std::copy(c->data.begin(), c->data.end(), out);
  return array;
}

/// Collective: columns `first` and on, which ghosts get too.
void write_data(CorePartition& core, const Doubles& values, std::int32_t first) {
  Partition& partition = core.at_rest();
  const auto columns = static_cast<int>(values.shape(1));
  const double* value = values.data();
  for (Cell* c : partition.owned()) {
    std::copy_n(value, columns, c->data.begin() + first);
    value += columns;
  }
  const py::gil_scoped_release others_may_run;
  partition.exchange(first, columns);
}

py::array_t<double> gradient(CorePartition& core) {
  Partition& partition = core.at_rest();
  auto array = table<double>(partition.owned().size(), 2);
  double* out = array.mutable_data();
  for (Cell* c : partition.owned()) {
    const Gradient of = partition.mesh().compute_derivatives(*c);
    *out++ = of.dfdx;
    *out++ = of.dfdy;
  }
  return array;
}

void exchange(CorePartition& core, py::array_t<double, py::array::c_style>& rows, int width,
              bool only_linked) {
  Partition& partition = core.at_rest();
  const std::span all(rows.mutable_data(), static_cast<std::size_t>(rows.size()));
  const py::gil_scoped_release others_may_run;
  partition.exchange(all, width, only_linked ? GhostLayer::linked : GhostLayer::all);
}

}  // namespace

void define_partition_arrays(py::class_<CorePartition>& partition) {
  using I32 = std::int32_t;
  constexpr bool with_ghosts = true;
  partition.def("positions", positions);
  define<std::int64_t>(partition, "numbers", with_ghosts,
                       [](const Partition& part, const Cell& c) { return part.global_number(c); });
  define<I32>(partition, "owners", with_ghosts,
              [](const Partition& part, const Cell& c) { return part.owner(c); });
  define<I32>(partition, "levels", !with_ghosts,
              [](const Partition&, const Cell& c) { return c.level; });
  define<I32>(partition, "on_boundary", !with_ghosts,
              [](const Partition&, const Cell& c) { return c.on_boundary; });
  define<bool>(partition, "known", !with_ghosts,
               [](const Partition&, const Cell& c) { return known_value(c); });
  define<double>(partition, "areas", !with_ghosts,
                 [](const Partition& part, Cell& c) { return part.mesh().area(c); });
  define<double>(partition, "grad", !with_ghosts,
                 [](const Partition&, const Cell& c) { return c.grad_data; });
  define<double>(partition, "grad2", !with_ghosts,
                 [](const Partition&, const Cell& c) { return c.grad2_data; });
  partition.def("links", link_table)
      .def("weights", weights)
      .def("data", data)
      .def("write_data", write_data, py::arg("values"), py::arg("first"))
      .def("gradient", gradient)
      .def("exchange", exchange, py::arg("rows").noconvert(), py::arg("width"),
           py::arg("only_linked"));
}

}  // namespace velmar_2d::python
