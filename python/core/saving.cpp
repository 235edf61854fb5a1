// Meshes in files, as bytes, and copies of them.
#include "python/core/asking.hpp"
#include "velmar_2D/snapshot.hpp"

#if defined(VELMAR_2D_PYTHON_HDF5)
#include <optional>

#include "velmar_2D/velmar_2D_hdf5.hpp"
#endif

namespace velmar_2d::python {

namespace {

/// A mesh of Python's from one that `make` gives for some kinds of the sides.
template <typename Make>
std::unique_ptr<CoreMesh> made(const py::object& kinds, const Make& make) {
  auto core = std::make_unique<CoreMesh>();
  const bc_type_function kind_at =
      kinds.is_none() ? bc_type_function() : kinds_of_mesh(core->kind_at, kinds);
  {
    const py::gil_scoped_release others_may_run;
    core->mesh = std::make_unique<Mesh>(make(kind_at));
  }
  core->mesh->set_message_handler(log);
  return core;
}

std::unique_ptr<CoreMesh> copy(CoreMesh& core, const py::object& kinds) {
  const Busy busy(core, "copy");
  return made(kinds, [&](const bc_type_function& kind_at) {
    return detail::restore(detail::take_snapshot(*core.mesh), kind_at, false);
  });
}

#if defined(VELMAR_2D_PYTHON_HDF5)

/// What Python's wrappers have made sure of: arrays of one or two dimensions.
using OwnArrays = std::vector<std::pair<std::string, Doubles>>;

SaveOptions options_from(const std::string& name, const std::optional<double>& time,
                         const OwnArrays& arrays, const std::string& length_unit,
                         const std::vector<std::string>& data_names,
                         const std::vector<std::string>& data_units) {
  SaveOptions options{name, time, {}, length_unit, data_names, data_units};
  for (const auto& [array_name, values] : arrays) {
    NamedArray& array = options.arrays.emplace_back();
    array.name = array_name;
    array.values = {values.data(), static_cast<std::size_t>(values.size())};
    if (values.ndim() == 2) array.columns = static_cast<std::size_t>(values.shape(1));
  }
  return options;
}

std::int64_t save_mesh(CoreMesh& core, const std::string& path, bool as_step,
                       const std::string& name, const std::optional<double>& time,
                       const OwnArrays& arrays, const std::string& length_unit,
                       const std::vector<std::string>& data_names,
                       const std::vector<std::string>& data_units) {
  const Busy busy(core, as_step ? "save_step" : "save");
  const SaveOptions options = options_from(name, time, arrays, length_unit, data_names, data_units);
  const py::gil_scoped_release others_may_run;
  if (as_step) return save_step(*core.mesh, path, time.value_or(0.0), options);
  save(*core.mesh, path, options);
  return 0;
}

void save_several(const std::string& path, const std::vector<std::string>& names,
                  const std::vector<CoreMesh*>& cores) {
  std::vector<std::unique_ptr<Busy>> busy;
  std::vector<MeshToSave> meshes;
  for (std::size_t i = 0; i < cores.size(); ++i) {
    busy.push_back(std::make_unique<Busy>(*cores[i], "save_meshes"));
    meshes.push_back({cores[i]->mesh.get(), {.name = names[i]}});
  }
  const py::gil_scoped_release others_may_run;
  save(meshes, path);
}

LoadOptions place_in_file(const std::string& name, const std::optional<std::int64_t>& step,
                          const std::optional<double>& time) {
  return {.name = name, .step = step, .time = time};
}

std::unique_ptr<CoreMesh> load_mesh(const std::string& path, const std::string& name,
                                    const std::optional<std::int64_t>& step,
                                    const std::optional<double>& time, const py::object& kinds,
                                    bool check) {
  return made(kinds, [&](const bc_type_function& kind_at) {
    LoadOptions options = place_in_file(name, step, time);
    options.bc_type = kind_at;
    options.check = check;
    return load(path, options);
  });
}

py::list load_own_arrays(const std::string& path, const std::string& name,
                         const std::optional<std::int64_t>& step,
                         const std::optional<double>& time) {
  std::vector<LoadedArray> arrays;
  {
    const py::gil_scoped_release others_may_run;
    arrays = load_arrays(path, place_in_file(name, step, time));
  }
  py::list loaded;
  for (const LoadedArray& array : arrays) {
    py::array values = to_array(array.values);
    if (array.columns != 1) {
      values =
          values.reshape(std::vector<py::ssize_t>{-1, static_cast<py::ssize_t>(array.columns)});
    }
    loaded.append(py::make_tuple(array.name, values));
  }
  return loaded;
}

py::list meshes_in(const std::string& path) {
  py::list found;
  for (const SavedMesh& saved : saved_meshes(path)) {
    found.append(py::make_tuple(saved.name, saved.nodes, saved.step, saved.time));
  }
  return found;
}

py::bytes to_bytes(CoreMesh& core) {
  const Busy busy(core, "pickle");
  std::vector<std::byte> file;
  {
    const py::gil_scoped_release others_may_run;
    file = save_to_memory(*core.mesh);
  }
  return {reinterpret_cast<const char*>(file.data()), file.size()};
}

std::unique_ptr<CoreMesh> from_bytes(const py::bytes& bytes, const py::object& kinds) {
  const std::string_view file = bytes;
  return made(kinds, [&](const bc_type_function& kind_at) {
    // What could be pickled can be unpickled.
    LoadOptions options;
    options.bc_type = kind_at;
    options.check = false;
    return load_from_memory(std::as_bytes(std::span(file)), options);
  });
}

#endif

/// The kinds of the sides n, e, s, w, of a mesh whose sides have one each.
std::array<std::int32_t, 4> kinds_of_sides(const CoreMesh& core) {
  std::array<std::int32_t, 4> kinds{};
  for (const Cell& c : core.readable().nodes(0)) {
    for (std::size_t side = 0; side < 4; ++side) {
      const Boundary* record = (c.*links[2 * side]).boundary();
      for (std::int32_t kind = bc_type_dir; record != nullptr && kind <= bc_type_oth; ++kind) {
        const auto direction = static_cast<Direction>(2 * side);
        if (record == &core.readable().side_record(direction, kind)) kinds[side] = kind;
      }
    }
  }
  return kinds;
}

}  // namespace

void define_saving(py::module_& m, py::class_<CoreMesh>& mesh) {
  mesh.def("copy", copy, py::arg("kinds"));
  mesh.def("kinds_of_sides", kinds_of_sides);
#if defined(VELMAR_2D_PYTHON_HDF5)
  mesh.def("save", save_mesh, py::arg("path"), py::arg("as_step"), py::arg("name"), py::arg("time"),
           py::arg("arrays"), py::arg("length_unit"), py::arg("data_names"), py::arg("data_units"));
  mesh.def("to_bytes", to_bytes);
  m.def("from_bytes", from_bytes, py::arg("file"), py::arg("kinds"));
  m.def("save_several", save_several, py::arg("path"), py::arg("names"), py::arg("meshes"));
  m.def("load", load_mesh, py::arg("path"), py::arg("name"), py::arg("step"), py::arg("time"),
        py::arg("kinds"), py::arg("check"));
  m.def("load_arrays", load_own_arrays, py::arg("path"), py::arg("name"), py::arg("step"),
        py::arg("time"));
  m.def("saved_meshes", meshes_in, py::arg("path"));
  m.attr("has_hdf5") = true;
#else
  m.attr("has_hdf5") = false;
#endif
}

}  // namespace velmar_2d::python
