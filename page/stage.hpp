// The mesh on the page: made from a scene, led from one scene to the next, looked at.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "page/scene.hpp"
#include "velmar_2D/mesh.hpp"

namespace velmar_2d::page {

/// What came of the last adaptation.
struct Report {
  std::string message;  ///< nothing, or one line: why it is not what was asked for
  UpdateStatistics statistics;
  std::int64_t too_coarse = 0;  ///< nodes that are coarser than wanted and than the limit
  std::int64_t at_limit = 0;    ///< nodes that only the limit keeps from being as fine as wanted
  std::int32_t highest_level = 0;
  double milliseconds = 0.0;  ///< of the adaptation alone
};

struct Stage {
  Scene scene;
  std::optional<Mesh> mesh;
  batch_size_function sizes;
  Report report;
  /// For each node, in list order: the wanted spacing, negative where the node is too coarse; and
  /// what its colour tells, 0 to 1.
  std::vector<float> wanted, values;
};

/// Wanted spacings of a scene, at its frame.
/// @return nothing on success; otherwise one line
std::string make_sizes(const Scene& scene, batch_size_function& sizes);

/// Shows another scene. The mesh is led there from what it was, in one step, where both have the
/// same rectangle and frames; otherwise, and where `anew`, it is made from the grid as everyone
/// gets it who opens the address.
void show(Stage& stage, const Scene& scene, bool anew);

/// Updates that stand for one resolve() where the mesh is made from the grid.
inline constexpr int updates_from_the_grid = 12;
/// Longest time for one scene, in seconds.
inline constexpr double longest_work = 4.0;

/// Number of nodes, and a hash of their positions and levels that does not depend on their order.
std::string fingerprint(const Mesh& mesh);

}  // namespace velmar_2d::page
