// Control cells: they tile the domain, close, agree with their neighbours and keep their caches
// right through generated histories; every orientation of every shape is told; what is no known
// shape is still measured.
#include <cmath>
#include <cstdio>
#include <limits>
#include <map>

#include "scenarios/scenarios.hpp"
#include "support/child_process.hpp"
#include "support/history.hpp"
#include "support/mesh_view.hpp"

namespace velmar_2d::tests {
namespace {

constexpr double sqrt_of_half = 0.70710678118654752;
// By direction, n to nw: on the lattice, and as the unit normal of a face.
constexpr std::array<int, 8> away_x = {0, 1, 1, 1, 0, -1, -1, -1};
constexpr std::array<int, 8> away_y = {1, 1, 0, -1, -1, -1, 0, 1};

double normal_x(std::size_t d) { return away_x[d] * (d % 2 == 1 ? sqrt_of_half : 1.0); }
double normal_y(std::size_t d) { return away_y[d] * (d % 2 == 1 ? sqrt_of_half : 1.0); }

double fresh_area(const Cell& c) {
  Cell copy = c;
  copy.area = -1.0;
  copy.signature_set = false;
  return cell_area(&copy);
}

double polygon_area(const Cell& c) {
  std::array<Point, max_cell_corners> corners;
  std::int32_t n = 0;
  cell_polygon(&c, corners, n);
  double area = 0.0;
  for (std::int32_t i = 0; i < n; ++i) {
    const Point& a = corners[static_cast<std::size_t>(i)];
    const Point& b = corners[static_cast<std::size_t>((i + 1) % n)];
    area += 0.5 * ((a.x - c.x) * (b.y - c.y) - (b.x - c.x) * (a.y - c.y));
  }
  return area;
}

using Signature = std::array<std::uint8_t, 2>;

/// Signature bits after an east-west mirror (shift 8 and up), then eighth turns clockwise.
std::uint8_t oriented(std::uint8_t bits, int shift) {
  std::uint8_t result = 0;
  for (int d = 0; d < 8; ++d) {
    const int target = ((shift >= 8 ? 8 - d : d) + shift) % 8;
    if ((bits & (128 >> d)) != 0) result = static_cast<std::uint8_t>(result | (128 >> target));
  }
  return result;
}

/// Signatures by type and shift.
using Gallery = std::map<std::pair<std::int32_t, std::int32_t>, Signature>;

void check_classification(const Cell& c, Gallery& gallery) {
  Cell fresh = c;
  fresh.signature_set = false;
  std::int32_t type = 0, shift = 0;
  cell_type(&fresh, type, shift);
  EXPECT_TRUE(fresh.signature_set);
  EXPECT_TRUE(!c.signature_set || fresh.signature == c.signature);
  constexpr std::array<std::int32_t, 3> first_type = {1, 11, 31}, last_type = {9, 30, 33};
  const auto place = static_cast<std::size_t>(c.on_boundary);
  EXPECT_TRUE(type >= first_type[place] && type <= last_type[place]) << type;
  EXPECT_EQ(gallery.try_emplace({type, shift}, fresh.signature).first->second, fresh.signature);
}

/// Length and distance are the neighbour's, too; the cell closes; its area follows from its faces.
void check_faces(const Cell& c, double area, double position_error) {
  CellFaces faces, back;
  cell_faces(&c, faces);
  double out_x = 0.0, out_y = 0.0, triangles = 0.0;
  for (std::size_t d = 0; d < 8; ++d) {
    const Cell* there = faces.neighbour[d];
    const double distance = faces.distance[d];
    out_x += faces.length[d] * normal_x(d);
    out_y += faces.length[d] * normal_y(d);
    triangles += 0.25 * faces.length[d] * distance;
    EXPECT_EQ(there == nullptr, faces.length[d] == 0.0);
    if (there == nullptr) continue;
    const double error = 1e-12 * distance + position_error;
    EXPECT_NEAR(there->x - c.x, distance * normal_x(d), error);
    EXPECT_NEAR(there->y - c.y, distance * normal_y(d), error);
    cell_faces(there, back);
    EXPECT_EQ(back.neighbour[(d + 4) % 8], &c);
    EXPECT_EQ(back.length[(d + 4) % 8], faces.length[d]);
    EXPECT_EQ(back.distance[(d + 4) % 8], distance);
  }
  for (std::size_t q = 0; q < 4; ++q) {
    out_x += faces.side[q] * normal_x(2 * q);
    out_y += faces.side[q] * normal_y(2 * q);
  }
  const double rounding = 1e-14 * std::sqrt(area);
  EXPECT_NEAR(out_x, 0.0, rounding);
  EXPECT_NEAR(out_y, 0.0, rounding);
  EXPECT_NEAR(triangles / area, 1.0, 1e-14);  // the domain sides pass through the node itself
}

/// Checks every cell, and that they fill the domain. Then fills two thirds of the caches, for the
/// next step to make stale.
void check_mesh(Gallery& gallery) {
  const double width = east_boundary_dir->c - x_min, height = north_boundary_dir->c - y_min;
  const double largest = std::max(std::abs(x_min), std::abs(y_min)) + width + height;
  const double position_error = 4.0 * std::numeric_limits<double>::epsilon() * largest;
  double sum = 0.0, sides = 0.0;
  for (Cell* c = mesh_beg; c != nullptr && !testing::Test::HasFailure(); c = c->next) {
    SCOPED_TRACE("node " + std::to_string(c->id) + ": " + links(*c));
    const double area = fresh_area(*c);
    EXPECT_TRUE(c->area < 0.0 || std::abs(c->area / area - 1.0) < 1e-14) << c->area << ' ' << area;
    EXPECT_NEAR(polygon_area(*c) / area, 1.0, 1e-12 + 10.0 * position_error / std::sqrt(area));
    check_classification(*c, gallery);
    check_faces(*c, area, position_error);
    CellFaces faces;
    cell_faces(c, faces);
    for (const double length : faces.side) sides += length;
    sum += area;
    if (c->id % 3 != 0) cell_area(c);
  }
  const double tolerance = 1e-12 + position_error / std::min(width, height);
  EXPECT_NEAR(sum / (width * height), 1.0, tolerance);
  EXPECT_NEAR(sides / (2.0 * (width + height)), 1.0, tolerance);
}

class CellGeometry : public MeshTest {};

TEST_F(CellGeometry, TilesTheDomainAndKeepsItsCachesRightInEveryHistory) {
  Gallery gallery;
  constexpr std::uint64_t nb_histories = 80;
  for (std::uint64_t seed = 0; seed < nb_histories && !HasFailure(); ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    run_history({seed, seed % 2 == 0 ? Steps::adapt : Steps::single_nodes, seed % 4 == 3},
                [&](const std::string& step) {
                  SCOPED_TRACE(step);
                  if (!HasFailure()) check_mesh(gallery);
                });
    delete_mesh();
  }
  // Every orientation of every shape has come up, and is its first one, mirrored and turned.
  EXPECT_EQ(gallery.size(), 70U + 64U + 16U);
  for (const auto& [type_and_shift, signature] : gallery) {
    const auto [type, shift] = type_and_shift;
    const Signature& first = gallery.at({type, 0});
    EXPECT_EQ(signature, (Signature{oriented(first[0], shift), oriented(first[1], shift)}));
  }
  // The interior ones in the order that is promised to callers.
  constexpr Signature firsts[] = {{85, 85},  {87, 82},  {91, 74},  {91, 81}, {95, 68},
                                  {111, 36}, {119, 20}, {119, 34}, {127, 8}};
  for (std::size_t i = 0; i < 9; ++i)
    EXPECT_EQ(gallery.at({static_cast<std::int32_t>(i) + 1, 0}), firsts[i]);
}

// The square of a level where 2^level is beyond 32 bits.
TEST_F(CellGeometry, AreaOfADeepLevel) {
  make_grid(2, 2, 1);
  constexpr double h = 1.0 / (1 << 21);
  std::array<Cell, 4> corners;
  Cell c;
  c.level = 41;
  NeighbourLink* const to[] = {&c.ne, &c.se, &c.sw, &c.nw};
  for (std::size_t i = 0; i < 4; ++i) {
    corners[i].x = i < 2 ? h : -h;
    corners[i].y = i % 3 == 0 ? h : -h;
    *to[i] = &corners[i];
  }
  EXPECT_EQ(cell_area(&c), 2.0 * h * h);
}

/// What is printed where the centre of a grid of 5 x 5 nodes with spacing 1 is classified after its
/// links were changed.
std::string measure_changed_cell(void (*change)(Cell& centre)) {
  return run_in_child([&] {
           make_grid(5, 5, 1);
           Cell* c = node_at(2, 2);
           change(*c);
           c->area = -1.0;
           c->signature_set = false;
           std::int32_t type = 7, shift = 7;
           cell_type(c, type, shift);
           CellFaces faces;
           cell_faces(c, faces);
           std::printf("\ntype %d shift %d area %g polygon %g faces", type, shift, cell_area(c),
                       polygon_area(*c));
           for (const double length : faces.length) std::printf(" %g", length);
           std::printf(" to the north side %g and the east %g\n", faces.side[0], faces.distance[2]);
         })
      .output;
}

TEST_F(CellGeometry, UnknownShapesWarnAndAreMeasured) {
  const auto expect_in = [](const std::string& output, const char* part) {
    EXPECT_NE(output.find(part), std::string::npos) << output;
  };
  // No link to the north: the cell reaches the side of the domain. Its surroundings: 4 x 4 units.
  const std::string open = measure_changed_cell([](Cell& c) { c.n = nullptr; });
  EXPECT_EQ(open.find("(velmar_2D/cell_type:) Warning: unknown shape of a control cell\n"), 0U);
  expect_in(open, "signature 42, 42\n[return for resume...]\n");
  expect_in(open,
            "type 0 shift 0 area 2.5 polygon 2.5 faces 0 0 2.5 0 1 0 2.5 0 to the north side 1 and "
            "the east 1\n");
  // A neighbour at half the distance: the signature alone would pass for type 1.
  expect_in(measure_changed_cell([](Cell& c) { c.e.cell()->x -= 0.5; }),
            "type 0 shift 0 area 0.75 polygon 0.75 faces 0.75 0 1 0 0.75 0 1 0 to the north side 0 "
            "and the east 0.5\n");
  // A neighbour that has left the lattice: its bisector runs through (0.6, 0) and (0.5, 0.3).
  const std::string off =
      measure_changed_cell([](Cell& c) { c.e.cell()->x += 0.08, c.e.cell()->y += 0.36; });
  expect_in(off, "type 0 shift 0 area 1.1 polygon 1.1 faces");
  expect_in(off, "and the east 1.13842\n");
}

}  // namespace
}  // namespace velmar_2d::tests
