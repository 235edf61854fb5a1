// Large meshes to be shared by many processes: simulated ones, and real ones.
#pragma once

#include <cmath>
#include <functional>
#include <numbers>
#include <vector>

#include "velmar_2D/mesh.hpp"

namespace velmar_2d::benchmarks {

struct LargeMesh {
  const char* name;
  std::int32_t nx;
  /// Wanted spacing; `finest` decides how many nodes there are.
  std::function<size_function(double finest)> spacing;
  double finest;     ///< for 10 million nodes
  double dimension;  ///< of where it is fine: nodes grow with this power of 1 / finest

  double finest_for(double nb_nodes) const {
    return finest * std::pow(1e7 / nb_nodes, 1.0 / dimension);
  }
  Grid grid(double finest_spacing) const {
    const double cells = 1.0 / (finest_spacing * (nx - 1));
    const auto halvings = static_cast<std::int32_t>(std::ceil(std::log2(cells)));
    return {.nx = nx, .subdiv_max = std::max(1, 2 * halvings + 1), .n_cell_data = 1};
  }
};

/// The ring, with a wave along it.
inline double distance_to_front(double x, double y) {
  const double angle = std::atan2(y - 0.5, x - 0.5);
  return std::abs(std::hypot(x - 0.5, y - 0.5) - 0.3 - 0.03 * std::sin(7.0 * angle));
}

/// Fine in a band, as fronts of flames and discharges want it; 30 times as wide as it is fine.
inline size_function band(double finest) {
  return [=](double x, double y, auto...) {
    return std::max(finest, 0.1 * (distance_to_front(x, y) - 0.01));
  };
}

/// Fine at a line alone.
inline size_function line(double finest) {
  return
      [=](double x, double y, auto...) { return std::max(finest, 0.1 * distance_to_front(x, y)); };
}

/// Vortices: fine and coarse everywhere, by a factor of 8.
inline size_function vortices(double finest) {
  return [=](double x, double y, auto...) {
    constexpr double waves = 4.0 * std::numbers::pi;
    const double shear = std::sin(waves * x) * std::sin(waves * y);
    return finest * (1.0 + 7.0 * shear * shear);
  };
}

inline std::vector<LargeMesh> large_meshes() {
  return {{"vortices", 513, vortices, 2.42e-4, 2.0},
          {"band", 1025, band, 8.2e-5, 2.0},
          {"line", 1025, line, 1.3e-5, 1.0}};
}

}  // namespace velmar_2d::benchmarks
