// Loading: from files, from memory, steps of a series; and what a file holds.
#include "hdf5/file_in_place.hpp"
#include "hdf5/layout.hpp"
#include "hdf5/mesh_group.hpp"
#include "hdf5/trailer.hpp"

namespace velmar_2d {

namespace hdf5 {

void check_format(hid_t file) {
  if (!has_attribute(file, format_attribute)) throw Error("this is no file of velmar_2d");
  const auto found = read_number<std::int32_t>(file, format_attribute);
  if (found < 1) throw Error("this is no file of velmar_2d");
  if (found > format_version) {
    throw Error("the file is of format " + std::to_string(found) +
                "; this version of velmar_2d reads " + std::to_string(format_version));
  }
}

Object make_series(hid_t file, const std::string& name) {
  Object series = make_group(file, name);
  write_number(series, series_attribute, std::int32_t{1});
  return series;
}

std::string name_of_step(std::int64_t step) {
  const std::string number = std::to_string(step);
  constexpr std::size_t digits = 10;
  return "step_" + std::string(digits - std::min(digits, number.size()), '0') + number;
}

}  // namespace hdf5

namespace {

using namespace hdf5;

/// An open file and its size.
struct OpenFile {
  Object file;
  std::size_t bytes = 0;
};

OpenFile open_file(const std::string& path) {
  OpenFile opened;
  opened.bytes = size_of_file(path);
  check_trailer(path);
  opened.file = open_to_read(path);
  check_format(opened.file);
  return opened;
}

OpenFile open_file(std::span<const std::byte> bytes) {
  OpenFile opened;
  opened.bytes = bytes.size();
  opened.file = open_in_memory(check_trailer(bytes));
  check_format(opened.file);
  return opened;
}

/// The last step that is not after a time.
std::string step_at(hid_t series, const std::vector<std::string>& steps, double time) {
  const auto is_after = [&](double wanted, const std::string& step) {
    return wanted < read_number<double>(open_group(series, step), "time");
  };
  const auto after = std::upper_bound(steps.begin(), steps.end(), time, is_after);
  if (after == steps.begin()) {
    throw Error("the series begins after the time " + std::to_string(time));
  }
  return *(after - 1);
}

Object open_mesh(hid_t file, const LoadOptions& options) {
  check_name(options.name);
  if (!has_link(file, options.name)) {
    std::string held;
    for (const std::string& name : names_in(file)) held += " '" + name + "'";
    throw Error("there is no mesh '" + options.name + "' in the file; it holds" +
                (held.empty() ? " none" : held));
  }
  Object group = open_group(file, options.name);
  if (!has_attribute(group, series_attribute)) {
    if (options.step || options.time) {
      throw Error("'" + options.name + "' is a single mesh and no series");
    }
    return group;
  }
  const std::vector<std::string> steps = names_in(group);
  if (steps.empty()) throw Error("the series has no steps");
  std::string step = steps.back();
  if (options.step) {
    step = name_of_step(*options.step);
    if (*options.step < 0 || !has_link(group, step)) {
      throw Error("there is no step " + std::to_string(*options.step) + " among the " +
                  std::to_string(steps.size()) + " steps of the series");
    }
  } else if (options.time) {
    step = step_at(group, steps, *options.time);
  }
  return open_group(group, step);
}

/// `From` is a path or the bytes of a file.
template <typename From>
MeshToRead mesh_from(const From& from, const LoadOptions& options) {
  MeshToRead mesh;
  const Session session;
  const OpenFile opened = open_file(from);
  mesh.read(open_mesh(opened.file, options), opened.bytes);
  return mesh;
}

template <typename From>
Mesh load_from(const From& from, const LoadOptions& options) {
  return mesh_from(from, options).restore(options.bc_type, options.check);
}

SavedMesh described(hid_t group, const std::string& name) {
  SavedMesh saved{name, nodes_in(group)};
  if (has_attribute(group, "step")) saved.step = read_number<std::int64_t>(group, "step");
  if (has_attribute(group, "time")) saved.time = read_number<double>(group, "time");
  return saved;
}

}  // namespace

Mesh load(const std::string& path, const LoadOptions& options) {
  return telling("load", path, [&] { return load_from(path, options); });
}

void load_default_mesh(const std::string& path, const LoadOptions& options) {
  telling("load_default_mesh", path,
          [&] { mesh_from(path, options).restore_default(options.bc_type, options.check); });
}

Mesh load_from_memory(std::span<const std::byte> file, const LoadOptions& options) {
  return telling("load_from_memory", "", [&] { return load_from(file, options); });
}

std::vector<LoadedArray> load_arrays(const std::string& path, const LoadOptions& options) {
  return telling("load_arrays", path, [&] {
    ArraysToRead arrays;
    {
      const Session session;
      const OpenFile opened = open_file(path);
      arrays.read(open_mesh(opened.file, options), opened.bytes);
    }
    return arrays.take();
  });
}

std::vector<SavedMesh> saved_meshes(const std::string& path) {
  return telling("saved_meshes", path, [&] {
    std::vector<SavedMesh> saved;
    const Session session;
    const OpenFile opened = open_file(path);
    for (const std::string& name : names_in(opened.file)) {
      const Object group = open_group(opened.file, name);
      if (!has_attribute(group, series_attribute)) {
        saved.push_back(described(group, name));
        continue;
      }
      for (const std::string& step : names_in(group)) {
        saved.push_back(described(open_group(group, step), name));
      }
    }
    return saved;
  });
}

}  // namespace velmar_2d
