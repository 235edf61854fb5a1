// velmar_2d::hdf5: meshes in HDF5 files, to go on from them and to read them anywhere.
//
//     velmar_2d::save(mesh, "run.h5");
//     velmar_2d::Mesh again = velmar_2d::load("run.h5");
//
// A loaded mesh is the saved one to the last bit: positions, values and every other field of the
// nodes, their order, ids and links, the records of the sides, the limit, all counters. Whatever is
// done to both from then on leads to the same mesh. Not saved are functions and handlers, and
// `data_ptr` of nodes.
//
// Files are complete or are not there: they are written beside their place, flushed to the disk,
// and renamed. A file that is damaged, or made to do harm, is refused.
//
// What goes wrong throws an Error, one line with the path and the reason; so does exhausted memory.
// Nothing is printed, by HDF5 neither.
//
// Threads: any number of them may save and load at the same time, different meshes or the same one,
// as long as none changes the mesh or its data. One call uses up to four.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "velmar_2D/mesh.hpp"

#if defined(VELMAR_2D_HDF5_SHARED)
#define VELMAR_2D_HDF5_API __attribute__((visibility("default")))
#else
#define VELMAR_2D_HDF5_API
#endif

namespace velmar_2d {

/// Numbers of the caller's own, kept with a mesh: row after row.
struct NamedArray {
  std::string name;
  std::span<const double> values;
  std::size_t columns = 1;  ///< the number of values is a multiple of it
  std::string units = {};
};

/// What is saved besides the mesh. Units are words for those who read the file.
struct SaveOptions {
  std::string name = "mesh";  ///< of the mesh in the file; without '/'
  std::optional<double> time = {};
  std::vector<NamedArray> arrays = {};
  std::string length_unit = {};
  std::vector<std::string> data_names = {}, data_units = {};  ///< of the first data values
};

/// One of several meshes of a file; the names differ.
struct MeshToSave {
  const Mesh* mesh = nullptr;
  SaveOptions options = {};
};

/// Writes a file with this mesh alone; replaces what was there. A symbolic link stays, what it
/// leads to is replaced.
VELMAR_2D_HDF5_API void save(const Mesh& mesh, const std::string& path,
                             const SaveOptions& options = {});
/// The same with several meshes.
VELMAR_2D_HDF5_API void save(std::span<const MeshToSave> meshes, const std::string& path);

/// Adds the mesh of a time to the series options.name of a file; makes either where it is not
/// there. Throws Error where the time is not above that of the last step. The file is copied on the
/// way, so that a step costs what the steps before it hold.
/// @return the number of the step, from 0 on
VELMAR_2D_HDF5_API std::int64_t save_step(const Mesh& mesh, const std::string& path, double time,
                                          const SaveOptions& options = {});

/// Which mesh of a file, and how.
struct LoadOptions {
  std::string name = "mesh";
  /// Of a series: the step with this number, or the last one not after this time. Without either
  /// the last one.
  std::optional<std::int64_t> step = {};
  std::optional<double> time = {};
  /// Kinds of the sides for nodes to come. Empty: one kind for each side, that of all its nodes;
  /// Error where they differ.
  bc_type_function bc_type = {};
  /// Whether every rule of check_mesh() must hold. Without it a mesh can be loaded that did not
  /// keep them when it was saved.
  bool check = true;
};

/// Throws Error where there is no such mesh or the file is no sound one.
VELMAR_2D_HDF5_API Mesh load(const std::string& path, const LoadOptions& options = {});

/// The same for the free procedures: in place of the mesh of default_mesh(), if there is one, which
/// goes; where this throws it stays. The records of the sides that `north_boundary_dir` and the
/// others designate get the saved values; those that designate none, records of the library's own.
VELMAR_2D_HDF5_API void load_default_mesh(const std::string& path, const LoadOptions& options = {});

/// An array that was saved with a mesh.
struct LoadedArray {
  std::string name;
  std::vector<double> values;
  std::size_t columns = 1;
};
/// The arrays of a mesh, by name; bc_type and check do not matter.
VELMAR_2D_HDF5_API std::vector<LoadedArray> load_arrays(const std::string& path,
                                                        const LoadOptions& options = {});

/// What a file holds.
struct SavedMesh {
  std::string name;
  std::int64_t nodes = 0;
  std::optional<std::int64_t> step = {};  ///< of a series
  std::optional<double> time = {};
};
/// All meshes of a file, by name and step.
VELMAR_2D_HDF5_API std::vector<SavedMesh> saved_meshes(const std::string& path);

/// The bytes of the file that save() would write, and back.
VELMAR_2D_HDF5_API std::vector<std::byte> save_to_memory(const Mesh& mesh,
                                                         const SaveOptions& options = {});
VELMAR_2D_HDF5_API Mesh load_from_memory(std::span<const std::byte> file,
                                         const LoadOptions& options = {});

}  // namespace velmar_2d
