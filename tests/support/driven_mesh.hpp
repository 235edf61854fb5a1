// A mesh that is driven through either face of the library: the free procedures or an object.
#pragma once

#include <optional>
#include <vector>

#include "velmar_2D/mesh.hpp"

namespace velmar_2d::tests {

enum class Face {
  free_procedures,  ///< the default mesh; one at a time
  object,
};

class DrivenMesh {
 public:
  explicit DrivenMesh(Face face) : face_(face) {}

  /// With ids from 1 on and all else as in a new process.
  void make(const Rectangle& rectangle, const Grid& grid);
  /// Gives the mesh back. The default mesh stays to the caller where this is not called.
  void end();

  Mesh& mesh() { return own_ ? *own_ : default_mesh(); }

  void update(const size_function& size);
  void update(const size_function& size, const init_data_function& init_data);
  void update_batched(const batch_size_function& sizes);
  void update_batched(const batch_size_function& sizes, const init_data_function& init_data);
  void set_limit(std::int32_t limit);
  void split();
  void join();

  /// Proposes what refines the mesh around a node.
  std::vector<Vertex> proposals_around(Cell& c);
  /// Inserts a proposal with the operation for its level.
  void insert(const Vertex& v);
  /// Removes a node with the operation for its level; whether it was removed.
  bool remove(Cell& c);

 private:
  bool is_free() const { return face_ == Face::free_procedures; }

  Face face_;
  std::optional<Mesh> own_;
};

}  // namespace velmar_2d::tests
