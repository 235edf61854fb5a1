// velmar_2d._mpi: what velmar_2d.mpi.Partition is made of. Communicators come as the numbers that
// Fortran has for them, so that nothing of mpi4py is needed to compile this.
#include "python/core/core.hpp"
#include "velmar_2D/velmar_2D_mpi.hpp"
#if defined(VELMAR_2D_PYTHON_IO)
#include "velmar_2D/velmar_2D_mpi_io.hpp"
#endif

namespace velmar_2d::python {

namespace {

using Rows = py::array_t<double, py::array::c_style>;

py::array_t<double> column(std::span<const Cell* const> nodes, double Cell::*member) {
  py::array_t<double> array(static_cast<py::ssize_t>(nodes.size()));
  double* out = array.mutable_data();
  for (const Cell* c : nodes) *out++ = c->*member;
  return array;
}

py::array_t<double> data_of(std::span<const Cell* const> nodes, std::int32_t n_cell_data) {
  py::array_t<double> array({static_cast<py::ssize_t>(nodes.size()), py::ssize_t{n_cell_data}});
  double* out = array.mutable_data();
  for (const Cell* c : nodes) out = std::copy(c->data.begin(), c->data.end(), out);
  return array;
}

class CorePartition {
 public:
  CorePartition(std::int64_t communicator, const std::array<double, 4>& rectangle, std::int32_t nx,
                std::int32_t ny, std::int32_t subdiv_max, std::int32_t n_cell_data,
                const std::array<std::int32_t, 4>& kinds, std::int32_t overlap)
      : partition_(MPI_Comm_f2c(static_cast<MPI_Fint>(communicator)),
                   {rectangle[0], rectangle[1], rectangle[2], rectangle[3]},
                   {.nx = nx,
                    .ny = ny,
                    .subdiv_max = subdiv_max,
                    .n_cell_data = n_cell_data,
                    .bc_type = kind_by_side(kinds[0], kinds[1], kinds[2], kinds[3])},
                   {.overlap = overlap}) {}

  /// `size` is asked with arrays for many nodes, `init_data` with numbers for one place.
  void resolve(const py::function& size, const py::object& init_data, double margin,
               std::int64_t most_nodes, double slope) {
    ++version_;
    const batch_size_function sizes = [&](std::span<const Cell* const> nodes,
                                          std::span<double> of) {
      copy_values(size(column(nodes, &Cell::x), column(nodes, &Cell::y),
                       data_of(nodes, partition_.mesh().n_cell_data()),
                       column(nodes, &Cell::grad_data), column(nodes, &Cell::grad2_data)),
                  "size", of);
    };
    init_data_function value_at;
    if (!init_data.is_none()) {
      value_at = [&](double x, double y) {
        double value = 0.0;
        copy_values(init_data(x, y), "init_data", {&value, 1});
        return value;
      };
    }
    partition_.resolve_batched(sizes, value_at,
                               {.margin = margin, .most_nodes = most_nodes, .slope = slope});
  }
  bool rebalance(double threshold) {
    ++version_;
    return partition_.rebalance(threshold);
  }

  std::size_t nb_owned() const { return partition_.owned().size(); }
  std::size_t nb_ghosts() const { return partition_.ghosts().size(); }
  std::int64_t size() const { return partition_.size(); }
  std::int64_t first_number() const { return partition_.first_global_number(); }
  std::uint64_t version() const { return version_; }

  py::array_t<double> positions() const {
    py::array_t<double> array({static_cast<py::ssize_t>(nb_owned() + nb_ghosts()), py::ssize_t{2}});
    double* out = array.mutable_data();
    for_all([&](const Cell& c) {
      *out++ = c.x;
      *out++ = c.y;
    });
    return array;
  }
  py::array_t<std::int64_t> numbers() const {
    py::array_t<std::int64_t> array(static_cast<py::ssize_t>(nb_owned() + nb_ghosts()));
    std::int64_t* out = array.mutable_data();
    for_all([&](const Cell& c) { *out++ = partition_.global_number(c); });
    return array;
  }
  /// Of owned nodes; numbers count owned ones, then ghosts. Marks the nodes.
  py::array_t<std::int32_t> links() {
    number_nodes();
    py::array_t<std::int32_t> array({static_cast<py::ssize_t>(nb_owned()), py::ssize_t{8}});
    std::int32_t* out = array.mutable_data();
    for (const Cell* c : partition_.owned()) {
      for (const Direction d : directions) *out++ = code_of(link(*c, d), d, *c);
    }
    return array;
  }
  py::array_t<double> weights() const {
    py::array_t<double> array({static_cast<py::ssize_t>(nb_owned()), py::ssize_t{8}});
    double* out = array.mutable_data();
    for (const Cell* c : partition_.owned()) {
      const CellFaces faces = partition_.mesh().faces(*c);
      for (std::size_t d = 0; d < 8; ++d) {
        *out++ = faces.length[d] > 0.0 ? faces.length[d] / faces.distance[d] : 0.0;
      }
    }
    return array;
  }
  py::array_t<double> areas() {
    return of_owned<double>([&](Cell& c) { return partition_.mesh().area(c); });
  }
  py::array_t<std::int32_t> levels() {
    return of_owned<std::int32_t>([](const Cell& c) { return c.level; });
  }
  py::array_t<bool> known() {
    return of_owned<bool>([](const Cell& c) { return known_value(c); });
  }
  Doubles data() const {
    const auto& nodes = partition_.owned();
    return data_of({nodes.data(), nodes.size()}, partition_.mesh().n_cell_data());
  }
  /// Collective: ghosts get theirs.
  void set_data(const Doubles& values) {
    const double* value = values.data();
    for (Cell* c : partition_.owned()) {
      for (double& mine : c->data) mine = *value++;
    }
    partition_.exchange();
  }
  void exchange(Rows& rows, int width) {
    partition_.exchange({rows.mutable_data(), static_cast<std::size_t>(rows.size())}, width);
  }
  py::dict statistics() {
    const PartitionStatistics of = partition_.statistics();
    py::dict numbers;
    numbers["nodes"] = of.nb_nodes;
    numbers["ghosts"] = of.nb_ghosts;
    numbers["most_nodes_owned"] = of.most_nodes_owned;
    numbers["imbalance"] = of.imbalance;
    numbers["rounds"] = of.nb_rounds;
    numbers["visited"] = of.visited;
    numbers["inserted"] = of.inserted;
    numbers["removed"] = of.removed;
    numbers["refused"] = of.refused;
    return numbers;
  }
#if defined(VELMAR_2D_PYTHON_IO)
  std::string write_pvtu(const std::string& path, bool control_cells,
                         const std::vector<std::string>& data_names, std::optional<double> time) {
    io::VtuOptions options;
    if (control_cells) options.cells = io::VtuCells::control_cells;
    options.data_names = data_names;
    options.time = time;
    return io::write_pvtu(partition_, path, options);
  }
#endif

 private:
  template <typename Visit>
  void for_all(const Visit& visit) const {
    for (const Cell* c : partition_.owned()) visit(*c);
    for (const Cell* c : partition_.ghosts()) visit(*c);
  }
  template <typename Value, typename ValueOf>
  py::array_t<Value> of_owned(const ValueOf& value_of) {
    py::array_t<Value> array(static_cast<py::ssize_t>(nb_owned()));
    Value* out = array.mutable_data();
    for (Cell* c : partition_.owned()) *out++ = value_of(*c);
    return array;
  }
  void number_nodes() {
    std::int32_t number = 0;
    for (Cell* c : partition_.owned()) c->used = number++;
    for (Cell* c : partition_.ghosts()) c->used = number++;
  }
  /// A record stands for the side that its direction leads to; of the two sides of a corner, for
  /// the one that a straight link of the node tells.
  static std::int32_t code_of(NeighbourLink there, Direction d, const Cell& c) {
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

  Partition partition_;
  std::uint64_t version_ = 0;
};

}  // namespace

PYBIND11_MODULE(_mpi, m) {
  m.doc() = "What velmar_2d.mpi.Partition is made of.";
  static const py::object mesh_error = py::module_::import("velmar_2d").attr("MeshError");
  py::register_local_exception_translator([](std::exception_ptr thrown) {
    try {
      if (thrown) std::rethrow_exception(thrown);
    } catch (const Error& error) {
      PyErr_SetString(mesh_error.ptr(), error.what());
    }
  });
  py::class_<CorePartition> partition(m, "Partition");
  partition
      .def(py::init<std::int64_t, const std::array<double, 4>&, std::int32_t, std::int32_t,
                    std::int32_t, std::int32_t, const std::array<std::int32_t, 4>&, std::int32_t>(),
           py::arg("communicator"), py::arg("rectangle"), py::arg("nx"), py::arg("ny"),
           py::arg("subdiv_max"), py::arg("n_cell_data"), py::arg("kinds"), py::arg("overlap"))
      .def("resolve", &CorePartition::resolve, py::arg("size"), py::arg("init_data"),
           py::arg("margin"), py::arg("most_nodes"), py::arg("slope"))
      .def("rebalance", &CorePartition::rebalance, py::arg("threshold"))
      .def("nb_owned", &CorePartition::nb_owned)
      .def("nb_ghosts", &CorePartition::nb_ghosts)
      .def("size", &CorePartition::size)
      .def("first_number", &CorePartition::first_number)
      .def("version", &CorePartition::version)
      .def("positions", &CorePartition::positions)
      .def("numbers", &CorePartition::numbers)
      .def("links", &CorePartition::links)
      .def("weights", &CorePartition::weights)
      .def("areas", &CorePartition::areas)
      .def("levels", &CorePartition::levels)
      .def("known", &CorePartition::known)
      .def("data", &CorePartition::data)
      .def("set_data", &CorePartition::set_data, py::arg("values"))
      .def("exchange", &CorePartition::exchange, py::arg("rows").noconvert(), py::arg("width"))
      .def("statistics", &CorePartition::statistics);
#if defined(VELMAR_2D_PYTHON_IO)
  partition.def("write_pvtu", &CorePartition::write_pvtu, py::arg("path"), py::arg("control_cells"),
                py::arg("data_names"), py::arg("time"));
  m.attr("has_io") = true;
#else
  m.attr("has_io") = false;
#endif
}

}  // namespace velmar_2d::python
