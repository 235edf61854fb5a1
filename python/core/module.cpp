// The extension module velmar_2d._core: meshes, each with procedures that read or change it. The
// classes that users see are written in Python, on top of it.
#include <optional>
#include <utility>

#include "python/core/core.hpp"
#include "velmar_2D/velmar_2D.hpp"

#if defined(VELMAR_2D_PYTHON_IO)
#include "velmar_2D/velmar_2D_io.hpp"
#endif

namespace velmar_2d::python {

namespace {

#if defined(VELMAR_2D_PYTHON_IO)
void raise_os_error(const std::string& error) {
  if (error.empty()) return;
  PyErr_SetString(PyExc_OSError, error.c_str());
  throw py::error_already_set();
}

void write_vtu(CoreMesh& core, const std::string& path, bool control_cells, bool ascii,
               const std::vector<std::string>& data_names, std::optional<double> time) {
  const Busy busy(core, "write_vtu");
  io::VtuOptions options;
  options.cells = control_cells ? io::VtuCells::control_cells : io::VtuCells::triangles;
  options.ascii = ascii;
  options.data_names = data_names;
  options.time = time;
  raise_os_error(io::write_vtu(*core.mesh, path, options));
}

void write_pvd(const std::string& path, const std::vector<std::pair<double, std::string>>& steps) {
  std::vector<io::TimeStep> series;
  for (const auto& [time, file] : steps) series.push_back({time, file});
  raise_os_error(io::write_pvd(path, series));
}
#endif

py::dict statistics(const CoreMesh& core) {
  const UpdateStatistics& of_update = core.readable().statistics();
  py::dict counts;
  counts["visited"] = of_update.visited;
  counts["inserted"] = of_update.inserted;
  counts["removed"] = of_update.removed;
  counts["refused"] = of_update.refused;
  return counts;
}

std::array<double, 4> rectangle(const CoreMesh& core) {
  const Rectangle r = core.readable().rectangle();
  return {r.x_min, r.x_max, r.y_min, r.y_max};
}

/// MeshError as users know it: velmar_2d.MeshError.
void define_mesh_error(py::module_& m) {
  static PyObject* mesh_error = PyErr_NewExceptionWithDoc(
      "velmar_2d.MeshError",
      "The library refused a call, or could not go on. The text is its whole message.\n\n"
      "The mesh is whole and can be used further.",
      PyExc_RuntimeError, nullptr);
  m.attr("MeshError") = py::handle(mesh_error);
  py::register_local_exception_translator([](std::exception_ptr thrown) {
    try {
      if (thrown) std::rethrow_exception(thrown);
    } catch (const Error& error) {
      PyErr_SetString(mesh_error, error.what());
    }
  });
}

}  // namespace

PYBIND11_MODULE(_core, m) {
  m.doc() = "What velmar_2d.Mesh is made of.";
  define_mesh_error(m);
  m.def("version", [] { return version(); });
  m.attr("bytes_of_node") = sizeof(Cell);

  py::class_<CoreMesh> mesh(m, "Mesh");
  m.def("make_mesh", make_mesh, py::arg("rectangle"), py::arg("nx"), py::arg("ny"),
        py::arg("subdiv_max"), py::arg("n_cell_data"), py::arg("kinds"),
        py::arg("kinds_vectorised"));
  mesh.def("delete", &CoreMesh::remove);
  mesh.def("is_alive", &CoreMesh::is_alive);
  mesh.def("update", update, py::arg("size"), py::arg("init_data"), py::arg("vectorised"),
           py::arg("init_vectorised"), py::arg("hooks"), py::arg("progress"), py::arg("kinds"),
           py::arg("kinds_vectorised"));
  mesh.def("resolve", resolve, py::arg("size"), py::arg("init_data"), py::arg("margin"),
           py::arg("most_nodes"), py::arg("slope"), py::arg("vectorised"),
           py::arg("init_vectorised"), py::arg("hooks"), py::arg("progress"), py::arg("kinds"),
           py::arg("kinds_vectorised"));
  mesh.def("transfer", [](const CoreMesh& core) {
    return static_cast<std::int32_t>(core.readable().transfer());
  });
  mesh.def("set_transfer", [](CoreMesh& core, std::int32_t transfer) {
    const Busy busy(core, "transfer");
    core.mesh->set_transfer(static_cast<Transfer>(transfer));
  });
  mesh.def("set_subdiv_max", set_subdiv_max, py::arg("limit"), py::arg("kinds"),
           py::arg("kinds_vectorised"));
  mesh.def("subdiv_max", [](const CoreMesh& core) { return core.readable().limit(); });
  mesh.def("nb_nodes", [](const CoreMesh& core) { return core.readable().size(); });
  mesh.def("revision", [](const CoreMesh& core) { return core.readable().revision(); });
  mesh.def("data_version", [](const CoreMesh& core) { return core.data_version; });
  mesh.def("dist_0", [](const CoreMesh& core) { return core.readable().dist_0(); });
  mesh.def("rectangle", rectangle);
  mesh.def("n_cell_data", [](const CoreMesh& core) { return core.readable().n_cell_data(); });
  mesh.def("statistics", statistics);
#if defined(VELMAR_2D_PYTHON_IO)
  mesh.def("write_vtu", write_vtu, py::arg("path"), py::arg("control_cells"), py::arg("ascii"),
           py::arg("data_names"), py::arg("time"));
  m.def("write_pvd", write_pvd, py::arg("path"), py::arg("steps"));
  m.attr("has_io") = true;
#else
  m.attr("has_io") = false;
#endif
  define_arrays(mesh);
  define_places(mesh);
  define_numerics(mesh);
  define_saving(m, mesh);
}

}  // namespace velmar_2d::python
