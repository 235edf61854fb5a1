// Domains, size functions and fields that tests, benchmarks and examples share.
#pragma once

#include "velmar_2D/velmar_2D.hpp"

namespace velmar_2d::scenarios {

/// Fills in all twelve side records (they live in this module) for a rectangle.
void set_domain(double west, double east, double south, double north);

/// A bc_type callback: Dirichlet on every side.
std::int32_t all_dirichlet(double x, double y, std::string_view side);

/// Makes a grid of nx by ny nodes of the unit square with Dirichlet sides.
void init_unit_square(std::int32_t nx, std::int32_t ny, std::int32_t subdiv_max);

/// A circle that a mesh follows.
struct Ring {
  double x = 0.5, y = 0.5, radius = 0.3;
  /// Distance of a point to the circle line.
  double distance(double px, double py) const;
};

/// Wanted spacing around a ring: clamp(grading * distance, finest, coarsest).
size_function ring_spacing(const Ring& ring, double grading, double finest, double coarsest);

/// The ring of radius 0.3 whose centre moves from (0.3, 0.5) to (0.7, 0.5), at time 0 to 1.
Ring travelling_ring(double time);

/// Pseudo-random numbers that are the same on every machine (splitmix64).
struct Random {
  std::uint64_t state = 0;
  std::uint64_t next();
  double uniform();                  ///< in [0, 1)
  int between(int first, int last);  ///< in first .. last
};

/// A number in [0, 1) that depends on the position and the seed only.
double position_noise(double x, double y, std::uint64_t seed);

/// The same wanted spacing everywhere.
size_function even_spacing(double spacing);

/// Wanted spacing `finest` left of the line x = at, `coarsest` right of it.
size_function jumping_spacing(double at, double finest, double coarsest);

/// Wanted spacing `finest` at a `share` of all positions, chosen by position_noise(), and anything
/// between the two elsewhere.
size_function random_spacing(std::uint64_t seed, double share, double finest, double coarsest);

/// What no size function should return, at half of all positions: 0, negative values, infinities
/// and not-a-number, chosen by position_noise(); `otherwise` at the other half.
size_function hostile_spacing(std::uint64_t seed, size_function otherwise);

}  // namespace velmar_2d::scenarios
