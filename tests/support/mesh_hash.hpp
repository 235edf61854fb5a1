// Meshes as numbers: the same on every machine, and only for meshes that are the same.
#pragma once

#include <cstdint>
#include <string>

#include "velmar_2D/mesh.hpp"
#include "velmar_2D/velmar_2D.hpp"

namespace velmar_2d::tests {

/// Number of nodes and a hash of them all that does not depend on their order: the bits of
/// positions, data values and derivatives; levels, and where links lead.
std::string fingerprint(const Mesh& mesh = default_mesh());

/// A hash of all that a mesh is: every field of every node in list order, to the last bit, nodes
/// named by their ids; domain, limit and counters.
std::uint64_t state_hash(const Mesh& mesh);

}  // namespace velmar_2d::tests
