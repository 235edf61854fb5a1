// The mesh as triangles.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "velmar_2D/mesh.hpp"

namespace velmar_2d::io {

struct Triangulation {
  std::vector<const Cell*> nodes;                      ///< in the order of the node list
  std::vector<std::array<std::int32_t, 3>> triangles;  ///< indices into `nodes`, anticlockwise
};

/// Triangles between the linked nodes. They fill the domain, and every edge inside belongs to two
/// of them: no corner of one lies within the edge of another.
/// Cost: linear in the number of nodes, about 150 bytes of memory for each.
Triangulation triangulation_of(const Mesh& mesh);

}  // namespace velmar_2d::io
