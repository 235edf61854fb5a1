#include "scenarios/scenarios.hpp"

#include <bit>
#include <cmath>
#include <limits>

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

std::uint64_t Random::next() {
  std::uint64_t z = state += 0x9e3779b97f4a7c15U;
  z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9U;
  z = (z ^ (z >> 27)) * 0x94d049bb133111ebU;
  return z ^ (z >> 31);
}

double Random::uniform() { return std::ldexp(static_cast<double>(next() >> 11), -53); }

int Random::between(int first, int last) {
  return first + static_cast<int>(next() % static_cast<std::uint64_t>(last - first + 1));
}

double position_noise(double x, double y, std::uint64_t seed) {
  Random random{seed};
  random.state = random.next() ^ std::bit_cast<std::uint64_t>(x);
  random.state = random.next() ^ std::bit_cast<std::uint64_t>(y);
  return random.uniform();
}

size_function even_spacing(double spacing) {
  return [=](double, double, std::span<const double>, double, double) { return spacing; };
}

size_function jumping_spacing(double at, double finest, double coarsest) {
  return [=](double x, double, std::span<const double>, double, double) {
    return x < at ? finest : coarsest;
  };
}

size_function random_spacing(std::uint64_t seed, double share, double finest, double coarsest) {
  return [=](double x, double y, std::span<const double>, double, double) {
    if (position_noise(x, y, seed) < share) return finest;
    return finest + (coarsest - finest) * position_noise(y, x, seed + 1);
  };
}

size_function hostile_spacing(std::uint64_t seed, size_function otherwise) {
  return [=](double x, double y, std::span<const double> data, double grad, double grad2) {
    constexpr double infinity = std::numeric_limits<double>::infinity();
    constexpr std::array<double, 6> bad = {0.0,
                                           -1.0,
                                           infinity,
                                           -infinity,
                                           std::numeric_limits<double>::quiet_NaN(),
                                           std::numeric_limits<double>::denorm_min()};
    const auto choice = static_cast<std::size_t>(12.0 * position_noise(x, y, seed));
    return choice < bad.size() ? bad[choice] : otherwise(x, y, data, grad, grad2);
  };
}

}  // namespace velmar_2d::scenarios
