// The same input gives the same mesh, to the last bit, with every compiler and in every build. A
// change of a result below is a change of what every user's program computes: make it on purpose.
// The fields are made of the four operations and square roots only, which every machine rounds
// alike.
#include <cmath>

#include "scenarios/scenarios.hpp"
#include "support/mesh_checker.hpp"
#include "support/mesh_view.hpp"

namespace velmar_2d::tests {
namespace {

struct Scenario {
  const char* name;
  void (*make)();
  const char* result;
};

void PrintTo(const Scenario& scenario, std::ostream* out) { *out << scenario.name; }

/// A front around (x, 2) that is 0 on a circle of radius 1 and levels off on both sides.
double wave(double x, double px, double py) {
  const double t = 4.0 * (std::sqrt((px - x) * (px - x) + (py - 2.0) * (py - 2.0)) - 1.0);
  return t / (1.0 + std::abs(t));
}
size_function ring_of(double x) { return scenarios::ring_spacing({x, 2.0, 1.0}, 0.4, 0.1, 1.0); }
double by_indicators(double, double, std::span<const double>, double gradient, double hessian) {
  return 0.4 / (0.1 + gradient + 0.1 * hessian);
}
void adapt(int times, const size_function& spacing) {
  for (int i = 0; i < times; ++i) update_mesh_no_init(spacing);
}
void grid_on(double west, double south, double spacing, int nx, int ny, int limit) {
  scenarios::set_domain(west, west + (nx - 1) * spacing, south, south + (ny - 1) * spacing);
  double y_max = 0.0;
  init_mesh(scenarios::all_dirichlet, nx, ny, limit, y_max);
}

const Scenario scenarios_with_results[] = {
    {"no_data",
     [] {
       make_grid(5, 5, 8);
       adapt(4, ring_of(2.0));
     },
     "801 nodes, 2adb0865a0c0d9b"},
    {"interpolated_data_with_indicators",
     [] {
       n_cell_data = 1;
       make_grid(6, 6, 8);
       for (Cell* c = mesh_beg; c != nullptr; c = c->next) c->data[0] = wave(2.5, c->x, c->y);
       adapt(6, by_indicators);
     },
     "139 nodes, 31b826d7ea827f38"},
    {"two_values_that_come_from_a_procedure",
     [] {
       n_cell_data = 2;
       make_grid(6, 6, 7);
       for (Cell* c = mesh_beg; c != nullptr; c = c->next) {
         c->data[0] = wave(2.0, c->x, c->y);
         c->data[1] = c->x * c->y;
       }
       for (int i = 0; i < 6; ++i)
         update_mesh_init(by_indicators, [](double x, double y) { return wave(2.0, x, y); });
     },
     "302 nodes, e9fd5dc68d6f2dec"},
    {"moving_front",
     [] {
       make_grid(5, 5, 8);
       for (int i = 0; i < 40; ++i) adapt(1, ring_of(0.1 * i));
     },
     "457 nodes, c53168bfb1c7496e"},
    {"limit_lowered_and_raised",
     [] {
       make_grid(5, 5, 9);
       adapt(4, ring_of(2.0));
       set_subdiv_max(4);
       set_subdiv_max(7);
       adapt(1, ring_of(2.2));
     },
     "541 nodes, ba4466d81af601be"},
    {"far_away",
     [] {
       n_cell_data = 1;
       grid_on(1e6 + 0.3, -2e5, 0.1, 9, 7, 8);
       const scenarios::Ring ring{1e6 + 0.7, -2e5 + 0.2, 0.25};
       for (int i = 0; i < 4; ++i)
         update_mesh_init(scenarios::ring_spacing(ring, 0.3, 0.01, 0.1),
                          [](double x, double y) { return (x - 1e6) * (y + 2e5); });
     },
     "2108 nodes, 7dfe585576c70911"},
    {"wide_domain_with_noise",
     [] {
       grid_on(-1.0, 0.1, 0.3, 14, 4, 8);
       adapt(5, scenarios::random_spacing(3, 0.1, 0.02, 0.3));
     },
     "1187 nodes, cc9b7365afdf5b17"},
    {"sides_of_several_kinds",
     [] {
       n_cell_data = 1;
       make_grid(5, 5, 7, [](double x, double y, std::string_view side) {
         return side == "North" ? (x > 2.2 ? 1 : 0) : side == "East" ? 2 : y > 1.4 ? 1 : 0;
       });
       for (int i = 0; i < 4; ++i) {
         update_mesh_init(scenarios::jumping_spacing(1.0 + i, 0.2, 1.0),
                          [](double x, double y) { return x * x - y; });
       }
     },
     "545 nodes, d5b6220543a127c7"},
    {"hostile",
     [] {
       make_grid(4, 4, 6);
       adapt(5, scenarios::hostile_spacing(5, scenarios::even_spacing(0.3)));
     },
     "216 nodes, 79c24ca26b810213"},
    {"tiny_grid",
     [] {
       make_grid(2, 2, 9);
       adapt(5, ring_of(-0.5));
     },
     "32 nodes, 69e1bf80b24d2f60"},
};

class SameMesh : public MeshTest, public testing::WithParamInterface<Scenario> {};

TEST_P(SameMesh, ForTheSameInput) {
  GetParam().make();
  EXPECT_EQ(fingerprint(), GetParam().result);
  EXPECT_TRUE(mesh_is_whole());
}

INSTANTIATE_TEST_SUITE_P(All, SameMesh, testing::ValuesIn(scenarios_with_results),
                         [](const auto& scenario) { return std::string(scenario.param.name); });

}  // namespace
}  // namespace velmar_2d::tests
