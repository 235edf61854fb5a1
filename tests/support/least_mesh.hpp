// The least mesh that does what sizes ask for, computed from positions and wants alone. Shares no
// code with the library, and reads public records only.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <utility>

#include "velmar_2D/mesh.hpp"

namespace velmar_2d::tests {

/// A position in units of dist_0 / 2^halvings, from the lower left corner.
using Position = std::pair<std::int64_t, std::int64_t>;
using Positions = std::set<Position>;

/// The lattice over the rectangle of a mesh.
class Lattice {
 public:
  explicit Lattice(const Mesh& mesh);

  Positions grid() const;
  /// Those of the nodes of a mesh; a failure where one lies off the lattice or two on each other.
  Positions of(const Mesh& mesh) const;

  static int ipos(Position p);
  Positions ring(Position p, int level) const;
  int wanted_level(const size_function& size, Position p, double margin = 0.0) const;

  /// The rules, starting from the positions that are there.
  Positions closure(const Positions& start, const size_function& size) const;
  /// Without what no other position rests on and none wants, from the finest to the coarsest.
  /// Those with a size that is none want the rings around them that are complete.
  Positions without_surplus(Positions all, const size_function& size, double margin = 0.0) const;
  Positions least(const size_function& size) const { return closure(grid(), size); }

  /// As least(), with sizes that grow by `slope` at most along the ways between a position and
  /// what it rests on, and between neighbours on the grid.
  Positions least_graded(const size_function& size, double slope) const;

 private:
  static constexpr int halvings = 20;
  static constexpr std::int64_t unit = std::int64_t{1} << halvings;

  double own_size(const size_function& size, Position p) const;  ///< not a number where it is none
  int complete_level(const Positions& all, Position p) const;
  int level_of(double h) const;
  static int halvings_of(std::int64_t offset);
  Positions parents(Position p) const { return ipos(p) == 0 ? Positions{} : ring(p, ipos(p)); }
  static std::int64_t index(double offset, double dist_0);
  double length(std::int64_t index) const;

  double x_min_, y_min_, dist_0_;
  int limit_;
  std::int64_t last_x_, last_y_;
};

/// What two sets do not have in common, for the eye.
std::string difference(const Positions& mesh, const Positions& expected);

/// Whether the library's own checker finds nothing; a failure for each of its findings.
bool is_in_order(const Mesh& mesh);

/// A size that grows from a point on.
size_function near_point(double x, double y, double slope, double finest);

}  // namespace velmar_2d::tests
