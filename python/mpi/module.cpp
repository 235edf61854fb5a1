// The module velmar_2d._mpi: what velmar_2d.mpi.Partition is made of.
#include "python/mpi/core_partition.hpp"
#if defined(VELMAR_2D_PYTHON_IO)
#include "velmar_2D/velmar_2D_mpi_io.hpp"
#endif

namespace velmar_2d::python {

namespace {

std::array<std::int32_t, 4> cells_of(const Window& box) {
  return {box.west, box.east, box.south, box.north};
}

std::vector<std::array<std::int32_t, 4>> boxes(CorePartition& core) {
  std::vector<std::array<std::int32_t, 4>> all;
  for (const Window& box : core.at_rest().boxes()) all.push_back(cells_of(box));
  return all;
}

std::array<double, 4> rectangle(const CorePartition& core) {
  const Rectangle& r = core.whole();
  return {r.x_min, r.x_max, r.y_min, r.y_max};
}

py::dict statistics(CorePartition& core) {
  PartitionStatistics of;
  {
    Partition& partition = core.at_rest();
    const py::gil_scoped_release others_may_run;
    of = partition.statistics();
  }
  py::dict numbers;
  numbers["nodes"] = of.nb_nodes;
  numbers["ghosts"] = of.nb_ghosts;
  numbers["most_nodes_owned"] = of.most_nodes_owned;
  numbers["imbalance"] = of.imbalance;
  numbers["rounds"] = of.nb_rounds;
  numbers["bytes"] = of.nb_bytes;
  numbers["visited"] = of.visited;
  numbers["inserted"] = of.inserted;
  numbers["removed"] = of.removed;
  numbers["refused"] = of.refused;
  numbers["update_seconds"] = of.update_seconds;
  numbers["sharing_seconds"] = of.sharing_seconds;
  numbers["repairs"] = of.nb_repairs;
  numbers["overlap"] = of.overlap;
  return numbers;
}

#if defined(VELMAR_2D_PYTHON_IO)
std::string write_pvtu(CorePartition& core, const std::string& path, bool control_cells, bool ascii,
                       const std::vector<std::string>& data_names, std::optional<double> time) {
  io::VtuOptions options;
  options.cells = control_cells ? io::VtuCells::control_cells : io::VtuCells::triangles;
  options.ascii = ascii;
  options.data_names = data_names;
  options.time = time;
  Partition& partition = core.at_rest();
  const py::gil_scoped_release others_may_run;
  return io::write_pvtu(partition, path, options);
}
#endif

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
  using Core = CorePartition;
  py::class_<Core> partition(m, "Partition");
  partition
      .def(py::init<std::int64_t, const std::array<double, 4>&, std::int32_t, std::int32_t,
                    std::int32_t, std::int32_t, const py::object&, bool, std::int32_t, bool>(),
           py::arg("communicator"), py::arg("rectangle"), py::arg("nx"), py::arg("ny"),
           py::arg("subdiv_max"), py::arg("n_cell_data"), py::arg("kinds"),
           py::arg("kinds_vectorised"), py::arg("overlap"), py::arg("repairs"))
      .def(py::init<std::int64_t, CoreMesh*, const py::object&, bool, std::int32_t, bool>(),
           py::arg("communicator"), py::arg("mesh"), py::arg("kinds"), py::arg("kinds_vectorised"),
           py::arg("overlap"), py::arg("repairs"))
      .def("update", &Core::update, py::arg("size"), py::arg("init_data"), py::arg("vectorised"),
           py::arg("init_vectorised"), py::arg("progress"), py::arg("kinds"),
           py::arg("kinds_vectorised"))
      .def("resolve", &Core::resolve, py::arg("size"), py::arg("init_data"), py::arg("margin"),
           py::arg("most_nodes"), py::arg("slope"), py::arg("vectorised"),
           py::arg("init_vectorised"), py::arg("progress"), py::arg("kinds"),
           py::arg("kinds_vectorised"))
      .def("set_limit", &Core::set_limit, py::arg("limit"), py::arg("kinds"),
           py::arg("kinds_vectorised"))
      .def("rebalance", &Core::rebalance, py::arg("threshold"), py::arg("kinds"),
           py::arg("kinds_vectorised"))
      .def("gather", &Core::gather, py::arg("kinds"), py::arg("kinds_vectorised"))
      .def("first_at_fault", &Core::first_at_fault, py::arg("is_fine"))
      .def("transfer",
           [](Core& core) { return static_cast<std::int32_t>(core.at_rest().mesh().transfer()); })
      .def("set_transfer", &Core::set_transfer, py::arg("transfer"))
      .def("agrees",
           [](Core& core) {
             Partition& at_rest = core.at_rest();
             const py::gil_scoped_release others_may_run;
             return at_rest.agrees();
           })
      .def("nb_owned", [](Core& core) { return core.at_rest().owned().size(); })
      .def("nb_ghosts", [](Core& core) { return core.at_rest().ghosts().size(); })
      .def("nb_linked_ghosts", [](Core& core) { return core.at_rest().linked_ghosts().size(); })
      .def("size", [](Core& core) { return core.at_rest().size(); })
      .def("first_number", [](Core& core) { return core.at_rest().first_global_number(); })
      .def("n_cell_data", [](Core& core) { return core.at_rest().mesh().n_cell_data(); })
      .def("subdiv_max", [](Core& core) { return core.at_rest().mesh().limit(); })
      .def("dist_0", [](Core& core) { return core.at_rest().mesh().dist_0(); })
      .def("rectangle", rectangle)
      .def("boxes", boxes)
      .def("version", &Core::version)
      .def("statistics", statistics);
  define_partition_arrays(partition);
#if defined(VELMAR_2D_PYTHON_IO)
  partition.def("write_pvtu", write_pvtu, py::arg("path"), py::arg("control_cells"),
                py::arg("ascii"), py::arg("data_names"), py::arg("time"));
  m.attr("has_io") = true;
#else
  m.attr("has_io") = false;
#endif
}

}  // namespace velmar_2d::python
