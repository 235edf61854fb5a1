// The extension module velmar_2d._core: procedures on the one mesh of the process. The classes that
// users see are written in Python, on top of it.
#include "python/core/core.hpp"

#if defined(VELMAR_2D_PYTHON_IO)
#include "velmar_2D/velmar_2D_io.hpp"
#endif

namespace velmar_2d::python {

namespace {

#if defined(VELMAR_2D_PYTHON_IO)
void write_vtu(const std::string& path, bool control_cells, bool ascii,
               const std::vector<std::string>& data_names) {
  const Busy busy("write_vtu");
  require_mesh();
  io::VtuOptions options;
  options.cells = control_cells ? io::VtuCells::control_cells : io::VtuCells::triangles;
  options.ascii = ascii;
  options.data_names = data_names;
  const std::string error = io::write_vtu(path, options);
  if (error.empty()) return;
  PyErr_SetString(PyExc_OSError, error.c_str());
  throw py::error_already_set();
}
#endif

py::dict statistics() {
  py::dict counts;
  counts["visited"] = update_statistics.visited;
  counts["inserted"] = update_statistics.inserted;
  counts["removed"] = update_statistics.removed;
  counts["refused"] = update_statistics.refused;
  return counts;
}

/// MeshError as users know it: velmar_2d.MeshError.
void define_mesh_error(py::module_& m) {
  static PyObject* mesh_error = PyErr_NewExceptionWithDoc(
      "velmar_2d.MeshError",
      "The library refused a call, or could not go on. The text is its whole message.\n\n"
      "The mesh is whole and can be used, or deleted and made again.",
      PyExc_RuntimeError, nullptr);
  m.attr("MeshError") = py::handle(mesh_error);
  py::register_exception_translator([](std::exception_ptr thrown) {
    try {
      if (thrown) std::rethrow_exception(thrown);
    } catch (const MeshFailure& failure) {
      PyErr_SetString(mesh_error, failure.what());
    }
  });
}

}  // namespace

PYBIND11_MODULE(_core, m) {
  m.doc() = "Procedures on the one mesh of this process; use velmar_2d.Mesh.";
  define_mesh_error(m);
  take_over_messages();

  m.def("version", [] { return version(); });
  m.def("make_mesh", make_mesh, py::arg("rectangle"), py::arg("nx"), py::arg("ny"),
        py::arg("subdiv_max"), py::arg("n_cell_data"), py::arg("bc_type"), py::arg("vectorised"));
  m.def("delete_mesh", delete_mesh_and_callables);
  m.def("update", update, py::arg("size"), py::arg("init_data"), py::arg("vectorised"),
        py::arg("init_vectorised"));
  m.def("set_subdiv_max", [](std::int32_t limit) {
    const Busy busy("subdiv_max");
    require_mesh();
    set_subdiv_max(limit);
  });
  m.def("subdiv_max", get_subdiv_max);
  m.def("nb_nodes", [] { return nb_nodes; });
  m.def("revision", [] { return mesh_revision; });
  m.def("dist_0", [] { return dist_0; });
  m.def("rectangle", [] {
    return std::array{west_boundary_dir->c, east_boundary_dir->c, south_boundary_dir->c,
                      north_boundary_dir->c};
  });
  m.def("n_cell_data", [] { return n_cell_data; });
  m.def("statistics", statistics);
#if defined(VELMAR_2D_PYTHON_IO)
  m.def("write_vtu", write_vtu, py::arg("path"), py::arg("control_cells"), py::arg("ascii"),
        py::arg("data_names"));
  m.attr("has_io") = true;
#else
  m.attr("has_io") = false;
#endif
  define_arrays(m);

  // Callables must be let go, and the library silenced, while there is an interpreter.
  py::module_::import("atexit").attr("register")(py::cpp_function([] {
    message_handler = [](std::string_view) {};
    delete_mesh_and_callables();
  }));
}

}  // namespace velmar_2d::python
