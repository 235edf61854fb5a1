// One mesh as a group of a file: attributes, an array for each field of the nodes, the caller's
// own.
#pragma once

#include "hdf5/columns.hpp"
#include "velmar_2D/snapshot.hpp"
#include "velmar_2D/velmar_2D_hdf5.hpp"

namespace velmar_2d::hdf5 {

/// A mesh on its way to a file, compressed.
class MeshToWrite {
 public:
  /// Throws Error where the mesh or the options cannot be saved.
  MeshToWrite(const Mesh& mesh, const SaveOptions& options);

  const std::string& name() const { return options_.name; }
  std::size_t compressed_bytes() const;
  /// Writes a group of this name.
  void write(hid_t parent, const std::string& name, std::optional<std::int64_t> step = {}) const;

 private:
  const SaveOptions& options_;
  detail::Snapshot snapshot_;
  std::vector<ArrayToWrite> arrays_, own_arrays_;
};

/// A mesh on its way from a file: read() by a session, the rest without.
class MeshToRead {
 public:
  void read(hid_t group, std::size_t bytes_of_file);
  Mesh restore(const bc_type_function& bc_type, bool check);
  void restore_default(const bc_type_function& bc_type, bool check);

 private:
  const detail::Snapshot& complete();

  detail::Snapshot snapshot_;
  std::vector<ArrayToRead> arrays_;
};

/// The caller's arrays of a mesh on their way from a file, likewise.
class ArraysToRead {
 public:
  void read(hid_t group, std::size_t bytes_of_file);
  std::vector<LoadedArray> take();

 private:
  std::vector<LoadedArray> loaded_;
  std::vector<ArrayToRead> arrays_;
};

std::int64_t nodes_in(hid_t group);

/// Throws Error unless this can be the name of a mesh or an array.
void check_name(const std::string& name);

}  // namespace velmar_2d::hdf5
