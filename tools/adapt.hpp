// From a wanted spacing to a mesh.
#pragma once

#include <optional>
#include <string>

#include "tools/progress.hpp"
#include "tools/size_field.hpp"
#include "velmar_2D/mesh.hpp"

namespace velmar_2d::tools {

struct MeshOptions {
  int squares = 16;  ///< base squares along the shorter side of the domain
  int limit = 9;     ///< subdivision limit
  int updates = 0;   ///< number of update()s in place of one resolve(); 0: resolve()
  std::int64_t most_nodes = 2'000'000;  ///< about 0.6 gigabytes
  double slope = 0.0;                   ///< Resolution::slope
};

/// What came of it, beside the mesh itself.
struct Outcome {
  double seconds = 0.0;
  std::int64_t too_coarse = 0;  ///< nodes that are coarser than wanted
};

/// Makes the mesh of a field and adapts it. `domain` is enlarged at its north or east side to whole
/// squares. The first data value of every node is the wanted spacing. Throws what Mesh throws, and
/// Interrupted.
/// @return nothing on success, then there is a mesh; otherwise one line
std::string make_mesh(const SizeField& field, const MeshOptions& options, Domain& domain,
                      std::optional<Mesh>& mesh, Outcome& outcome, ProgressLine& line);

}  // namespace velmar_2d::tools
