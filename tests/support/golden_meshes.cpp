// The fields are made of the four operations and square roots only, which every machine rounds
// alike.
#include "support/golden_meshes.hpp"

#include <cmath>

#include "scenarios/scenarios.hpp"
#include "support/mesh_hash.hpp"

namespace velmar_2d::tests {

namespace {

/// A front around (x, 2) that is 0 on a circle of radius 1 and levels off on both sides.
double wave(double x, double px, double py) {
  const double t = 4.0 * (std::sqrt((px - x) * (px - x) + (py - 2.0) * (py - 2.0)) - 1.0);
  return t / (1.0 + std::abs(t));
}
size_function ring_of(double x) { return scenarios::ring_spacing({x, 2.0, 1.0}, 0.4, 0.1, 1.0); }
double by_indicators(double, double, std::span<const double>, double gradient, double hessian) {
  return 0.4 / (0.1 + gradient + 0.1 * hessian);
}
Rectangle squares(double west, double south, double spacing, int nx, int ny) {
  return {west, west + (nx - 1) * spacing, south, south + (ny - 1) * spacing};
}
Rectangle unit_squares(int nx, int ny) { return squares(0.0, 0.0, 1.0, nx, ny); }

const GoldenMesh all[] = {
    {"no_data",
     unit_squares(5, 5),
     {5, 5, 8},
     nullptr,
     4,
     [](DrivenMesh& mesh, int) { mesh.update(ring_of(2.0)); },  //
     "801 nodes, 2adb0865a0c0d9b"},
    {"interpolated_data_with_indicators",
     unit_squares(6, 6),
     {6, 6, 8, 1},
     [](std::size_t, double x, double y) { return wave(2.5, x, y); },
     6,
     [](DrivenMesh& mesh, int) { mesh.update(by_indicators); },  //
     "139 nodes, 31b826d7ea827f38"},
    {"two_values_that_come_from_a_procedure",
     unit_squares(6, 6),
     {6, 6, 7, 2},
     [](std::size_t value, double x, double y) { return value == 0 ? wave(2.0, x, y) : x * y; },
     6,
     [](DrivenMesh& mesh, int) {
       mesh.update(by_indicators, [](double x, double y) { return wave(2.0, x, y); });
     },
     "302 nodes, e9fd5dc68d6f2dec"},
    {"moving_front",
     unit_squares(5, 5),
     {5, 5, 8},
     nullptr,
     40,
     [](DrivenMesh& mesh, int i) { mesh.update(ring_of(0.1 * i)); },  //
     "457 nodes, c53168bfb1c7496e"},
    {"limit_lowered_and_raised",
     unit_squares(5, 5),
     {5, 5, 9},
     nullptr,
     7,
     [](DrivenMesh& mesh, int i) {
       if (i == 4 || i == 5) return mesh.set_limit(i == 4 ? 4 : 7);
       mesh.update(ring_of(i < 4 ? 2.0 : 2.2));
     },
     "541 nodes, ba4466d81af601be"},
    {"far_away",
     squares(1e6 + 0.3, -2e5, 0.1, 9, 7),
     {9, 7, 8, 1},
     nullptr,
     4,
     [](DrivenMesh& mesh, int) {
       const scenarios::Ring ring{1e6 + 0.7, -2e5 + 0.2, 0.25};
       mesh.update(scenarios::ring_spacing(ring, 0.3, 0.01, 0.1),
                   [](double x, double y) { return (x - 1e6) * (y + 2e5); });
     },
     "2108 nodes, 7dfe585576c70911"},
    {"wide_domain_with_noise",
     squares(-1.0, 0.1, 0.3, 14, 4),
     {14, 4, 8},
     nullptr,
     5,
     [](DrivenMesh& mesh, int) { mesh.update(scenarios::random_spacing(3, 0.1, 0.02, 0.3)); },
     "1187 nodes, cc9b7365afdf5b17"},
    {"sides_of_several_kinds",
     unit_squares(5, 5),
     {5, 5, 7, 1,
      [](double x, double y, std::string_view side) {
        return side == "North" ? (x > 2.2 ? 1 : 0) : side == "East" ? 2 : y > 1.4 ? 1 : 0;
      }},
     nullptr,
     4,
     [](DrivenMesh& mesh, int i) {
       mesh.update(scenarios::jumping_spacing(1.0 + i, 0.2, 1.0),
                   [](double x, double y) { return x * x - y; });
     },
     "545 nodes, d5b6220543a127c7"},
    {"hostile",
     unit_squares(4, 4),
     {4, 4, 6},
     nullptr,
     5,
     [](DrivenMesh& mesh, int) {
       mesh.update(scenarios::hostile_spacing(5, scenarios::even_spacing(0.3)));
     },
     "216 nodes, 79c24ca26b810213"},
    {"tiny_grid",
     unit_squares(2, 2),
     {2, 2, 9},
     nullptr,
     5,
     [](DrivenMesh& mesh, int) { mesh.update(ring_of(-0.5)); },  //
     "32 nodes, 69e1bf80b24d2f60"},
};

}  // namespace

std::span<const GoldenMesh> golden_meshes() { return all; }

std::uint64_t hash_at_thresholds() {
  constexpr int limit = 7;
  constexpr double half_of_margin = 0.6949591099211685;  // 2^(-1.05 / 2)
  std::uint64_t hash = 0;
  for (std::uint64_t seed = 0; seed < 400; ++seed) {
    scenarios::Random random{seed};
    const double west = random.uniform(), south = -random.uniform(), spacing = random.uniform();
    Mesh mesh(squares(west, south, spacing, 5, 5), {5, 5, limit});
    const size_function at_thresholds = [&](double x, double y, auto...) {
      scenarios::Random here{seed};
      here.state = static_cast<std::uint64_t>(1e15 * scenarios::position_noise(x, y, seed));
      const int level = here.between(0, limit + 1), roundings = here.between(-4, 4);
      double ratio = level % 2 == 0 ? 1.0 : std::sqrt(2.0);
      for (int i = 0; i < level / 2; ++i) ratio *= 2.0;
      if (here.between(0, 1) == 1) ratio *= half_of_margin;
      return mesh.dist_0() / (ratio * (1.0 + roundings * 0x1p-52));
    };
    for (int update = 0; update < 3; ++update) mesh.update(at_thresholds);
    hash = hash * 31 + state_hash(mesh);
    mesh.resolve(at_thresholds);
    hash = hash * 31 + state_hash(mesh);
  }
  return hash;
}

void GoldenRun::step() {
  if (next_step_ > 0) {
    golden_.step(driven_, next_step_ - 1);
  } else {
    driven_.make(golden_.rectangle, golden_.grid);
    for (Cell& c : mesh().nodes()) {
      for (std::size_t i = 0; i < c.data.size() && golden_.first_data != nullptr; ++i) {
        c.data[i] = golden_.first_data(i, c.x, c.y);
      }
    }
  }
  ++next_step_;
}

}  // namespace velmar_2d::tests
