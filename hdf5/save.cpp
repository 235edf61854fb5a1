// Saving: meshes as files, in memory, as steps of a series.
#include <new>

#include "hdf5/file_in_place.hpp"
#include "hdf5/layout.hpp"
#include "hdf5/mesh_group.hpp"
#include "hdf5/trailer.hpp"
#include "velmar_2D/velmar_2D.hpp"

namespace velmar_2d {

namespace {

using namespace hdf5;

void write_head(hid_t file) {
  write_text(file, "format", "velmar_2d");
  write_number(file, format_attribute, format_version);
  write_text(file, "velmar_2d_version", version());
}

/// Makes a file in memory, and uses its bytes and those that follow.
template <typename Use>
void with_file_of(std::span<const MeshToSave> meshes, const Use& use) {
  if (meshes.empty()) throw Error("there is no mesh to save");
  std::vector<MeshToWrite> to_write;
  to_write.reserve(meshes.size());
  for (const MeshToSave& one : meshes) {
    if (one.mesh == nullptr) throw Error("there is no mesh to save");
    for (const MeshToWrite& before : to_write) {
      if (before.name() == one.options.name) {
        throw Error("two meshes have the name '" + one.options.name + "'");
      }
    }
    to_write.emplace_back(*one.mesh, one.options);
  }
  std::size_t bytes = 0;
  for (const MeshToWrite& mesh : to_write) bytes += mesh.compressed_bytes();
  std::optional<NewFile> file;
  std::span<const std::byte> complete;
  {
    const Session session;
    file.emplace(bytes);
    write_head(file->id());
    for (const MeshToWrite& mesh : to_write) mesh.write(file->id(), mesh.name());
    complete = file->complete();
  }
  use(complete, trailer_of(complete));
}

/// The number of the next step of a series that there is; checks the time.
std::int64_t next_step(hid_t series, double time) {
  const std::vector<std::string> steps = names_in(series);
  if (steps.empty()) return 0;
  const Object last = open_group(series, steps.back());
  const auto before = read_number<double>(last, "time");
  if (!(time > before)) {
    throw Error("the time " + std::to_string(time) + " is not above that of the last step, " +
                std::to_string(before));
  }
  return read_number<std::int64_t>(last, "step") + 1;
}

std::int64_t add_step(const MeshToWrite& mesh, const std::string& path, double time) {
  size_of_file(path);  // regular
  FileInPlace place(path);
  place.copy_old();
  std::int64_t step = 0;
  {
    const Session session;
    Object file = open_to_add(place.beside());
    check_format(file);
    Object series;
    if (has_link(file, mesh.name())) {
      series = open_group(file, mesh.name());
      if (!has_attribute(series, series_attribute)) {
        throw Error("'" + mesh.name() + "' is a single mesh and no series");
      }
    } else {
      series = make_series(file, mesh.name());
    }
    step = next_step(series, time);
    mesh.write(series, name_of_step(step), step);
    series = Object();
    file.close("HDF5 cannot complete the file");
  }
  place.finish();
  return step;
}

std::int64_t first_step(const MeshToWrite& mesh, const std::string& path) {
  FileInPlace place(path);
  std::optional<NewFile> file;
  std::span<const std::byte> complete;
  {
    const Session session;
    file.emplace(mesh.compressed_bytes());
    write_head(file->id());
    mesh.write(make_series(file->id(), mesh.name()), name_of_step(0), 0);
    complete = file->complete();
  }
  place.write(complete);
  place.finish();
  return 0;
}

}  // namespace

void save(std::span<const MeshToSave> meshes, const std::string& path) {
  telling("save", path, [&] {
    FileInPlace place(path);  // a place that cannot be written to is found out at once
    with_file_of(meshes, [&](std::span<const std::byte> bytes, std::span<const std::byte> trailer) {
      place.write(bytes);
      place.write(trailer);
    });
    place.finish();
  });
}

void save(const Mesh& mesh, const std::string& path, const SaveOptions& options) {
  const MeshToSave one{&mesh, options};
  save({&one, 1}, path);
}

std::int64_t save_step(const Mesh& mesh, const std::string& path, double time,
                       const SaveOptions& options) {
  return telling("save_step", path, [&] {
    if (time != time) throw Error("the time is not a number");
    SaveOptions with_time = options;
    with_time.time = time;
    const MeshToWrite to_write(mesh, with_time);
    return exists(path) ? add_step(to_write, path, time) : first_step(to_write, path);
  });
}

std::vector<std::byte> save_to_memory(const Mesh& mesh, const SaveOptions& options) {
  return telling("save_to_memory", "", [&] {
    const MeshToSave one{&mesh, options};
    std::vector<std::byte> file;
    with_file_of({&one, 1},
                 [&](std::span<const std::byte> bytes, std::span<const std::byte> trailer) {
                   file.reserve(bytes.size() + trailer.size());
                   file.assign(bytes.begin(), bytes.end());
                   file.insert(file.end(), trailer.begin(), trailer.end());
                 });
    return file;
  });
}

}  // namespace velmar_2d
