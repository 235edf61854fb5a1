#include "scenarios/scenarios.hpp"

#include <cmath>

namespace velmar_2d::scenarios {

void set_domain(double west, double east, double south, double north) {
  struct Side {
    Boundary dir, neu, oth;
    void prepare(double coordinate, Boundary*& to_dir, Boundary*& to_neu, Boundary*& to_oth) {
      dir = {coordinate, bc_type_dir};
      neu = {coordinate, bc_type_neu};
      oth = {coordinate, bc_type_oth};
      to_dir = &dir;
      to_neu = &neu;
      to_oth = &oth;
    }
  };
  static std::array<Side, 4> sides;
  sides[0].prepare(north, north_boundary_dir, north_boundary_neu, north_boundary_oth);
  sides[1].prepare(east, east_boundary_dir, east_boundary_neu, east_boundary_oth);
  sides[2].prepare(south, south_boundary_dir, south_boundary_neu, south_boundary_oth);
  sides[3].prepare(west, west_boundary_dir, west_boundary_neu, west_boundary_oth);
}

std::int32_t all_dirichlet(double, double, std::string_view) { return bc_type_dir; }

void init_unit_square(std::int32_t nx, std::int32_t ny, std::int32_t subdiv_max) {
  set_domain(0.0, 1.0, 0.0, 1.0);
  double y_max = 0.0;
  init_mesh(all_dirichlet, nx, ny, subdiv_max, y_max);
}

double Ring::distance(double px, double py) const {
  return std::abs(std::hypot(px - x, py - y) - radius);
}

size_function ring_spacing(const Ring& ring, double grading, double finest, double coarsest) {
  return [=](double x, double y, std::span<const double>, double, double) {
    return std::clamp(grading * ring.distance(x, y), finest, coarsest);
  };
}

Ring travelling_ring(double time) { return {0.3 + 0.4 * time, 0.5, 0.3}; }

}  // namespace velmar_2d::scenarios
