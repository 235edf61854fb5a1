// Nodes, values and lines at places of the caller's, and values from one mesh to another, held
// against searches of all nodes and against areas of polygons.
#include <algorithm>
#include <cmath>
#include <numeric>

#include "support/history.hpp"
#include "support/mesh_view.hpp"

namespace velmar_2d::tests {
namespace {

using scenarios::Random;

double largest_coordinate(const Mesh& mesh) {
  const Rectangle r = mesh.rectangle();
  return std::max({std::abs(r.x_min), std::abs(r.x_max), std::abs(r.y_min), std::abs(r.y_max)});
}

double distance(const Cell& c, Point p) { return std::hypot(p.x - c.x, p.y - c.y); }

std::vector<const Cell*> all_nodes(const Mesh& mesh) {
  std::vector<const Cell*> nodes;
  for (const Cell& c : mesh.nodes()) nodes.push_back(&c);
  return nodes;
}

Point random_point(Random& random, const Rectangle& r) {
  const double x = random.uniform(), y = random.uniform();
  return {r.x_min + x * (r.x_max - r.x_min), r.y_min + y * (r.y_max - r.y_min)};
}

/// Points anywhere, at nodes, halfway along links, and at corners of control cells.
std::vector<Point> draw_points(Random& random, const Mesh& mesh, int n) {
  const std::vector<const Cell*> nodes = all_nodes(mesh);
  std::vector<Point> points;
  const Rectangle r = mesh.rectangle();
  for (int i = 0; i < n; ++i) {
    const Cell& c = *nodes[random.next() % nodes.size()];
    const Cell* there = link(c, directions[random.next() % 8]).cell();
    Point p = random_point(random, r);
    if (i % 4 == 1) p = {c.x, c.y};
    if (i % 4 == 2 && there != nullptr) p = {(c.x + there->x) / 2.0, (c.y + there->y) / 2.0};
    if (i % 4 == 3) p = mesh.polygon(c).corners[0];
    points.push_back({std::clamp(p.x, r.x_min, r.x_max), std::clamp(p.y, r.y_min, r.y_max)});
  }
  return points;
}

/// A graded mesh with two values: one that is linear in x and y, one that is not.
Mesh graded_mesh(const Rectangle& rectangle, std::int32_t nx, double x, double finest) {
  Mesh mesh(rectangle, {.nx = nx, .subdiv_max = 12, .n_cell_data = 2});
  const double width = rectangle.x_max - rectangle.x_min;
  for (int i = 0; i < 2; ++i) {
    mesh.update(scenarios::ring_spacing({x, rectangle.y_min + 0.5 * width, 0.3 * width}, 0.3,
                                        finest * width, width));
  }
  for (Cell& c : mesh.nodes()) {
    c.data[0] = 3.0 * c.x - 2.0 * c.y + 1.0;
    c.data[1] = std::sin(7.0 * c.x) * c.y;
  }
  return mesh;
}

using ValuesAnywhere = QuietMeshTest;

// ---------------------------------------------------------------------------------------------
// Nodes
// ---------------------------------------------------------------------------------------------

TEST_F(ValuesAnywhere, LocateFindsTheNearestNodeWhereverItBegins) {
  for (std::uint64_t seed = 0; seed < 24; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    History run({.seed = seed,
                 .steps = seed % 2 == 0 ? Steps::single_nodes : Steps::adapt,
                 .far_from_origin = seed % 3 == 0,
                 .nb_steps = 4,
                 .face = Face::object});
    while (!run.is_over()) {
      run.step();
      const Mesh& mesh = run.mesh();
      Random random{seed + 1};
      const std::vector<const Cell*> nodes = all_nodes(mesh);
      const std::vector<Point> points = draw_points(random, mesh, 60);
      const std::vector<const Cell*> together = mesh.locate(points);
      for (std::size_t i = 0; i < points.size(); ++i) {
        const Point p = points[i];
        double nearest = std::numeric_limits<double>::infinity();
        for (const Cell* c : nodes) nearest = std::min(nearest, distance(*c, p));
        const Cell* found = mesh.locate(p.x, p.y);
        ASSERT_NE(found, nullptr);
        EXPECT_LE(distance(*found, p), nearest + 4e-15 * largest_coordinate(mesh));
        EXPECT_EQ(together[i], found);
        for (int k = 0; k < 4; ++k) {
          EXPECT_EQ(mesh.locate(p.x, p.y, nodes[random.next() % nodes.size()]), found);
        }
      }
    }
  }
}

TEST_F(ValuesAnywhere, BordersBelongToTheEastAndTheNorth) {
  //   .---.---.      the centre of the lower left square was refined once
  //   | o |   |
  //   .---.---.
  Mesh mesh({0.0, 2.0, 0.0, 1.0}, {.nx = 3, .subdiv_max = 4});
  Cell& corner = *mesh.locate(0.0, 0.0);
  mesh.insert_node_odd_level(mesh.build_vertex(corner).vertices[0]);
  const auto place_of = [&](double x, double y) {
    const Cell* c = mesh.locate(x, y);
    return c == nullptr ? std::pair{-1.0, -1.0} : std::pair{c->x, c->y};
  };
  EXPECT_EQ(place_of(1.5, 0.5), std::pair(2.0, 1.0)) << "a corner of four cells";
  EXPECT_EQ(place_of(1.5, 0.0), std::pair(2.0, 0.0)) << "halfway between two nodes on the side";
  EXPECT_EQ(place_of(0.25, 0.25), std::pair(0.5, 0.5));
  EXPECT_EQ(place_of(0.5, 0.0), std::pair(1.0, 0.0)) << "where three cells touch the side";
  EXPECT_EQ(place_of(2.0, 1.0), std::pair(2.0, 1.0)) << "a corner of the rectangle";
  const double nan = std::numeric_limits<double>::quiet_NaN();
  for (const Point p :
       {Point{-1e-9, 0.5}, {2.1, 0.5}, {0.5, 1.1}, {0.5, -1.0}, {nan, 0.5}, {0.5, nan}}) {
    EXPECT_EQ(mesh.locate(p.x, p.y), nullptr) << p.x << ' ' << p.y;
  }
  EXPECT_EQ(locate(0.5, 0.5), nullptr) << "there is no default mesh";
}

TEST_F(ValuesAnywhere, LocateWorksAroundHolesInTheGridAndBrokenLinks) {
  for (std::uint64_t seed = 0; seed < 20; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    Random random{seed};
    Mesh mesh({}, {.nx = 7, .subdiv_max = 6, .n_cell_data = 1});
    for (int i = 0; i < 40; ++i) {
      std::vector<Cell*> nodes;
      for (Cell& c : mesh.nodes()) nodes.push_back(&c);
      const auto any = [&] { return nodes[random.next() % nodes.size()]; };
      if (seed % 2 == 0 || i % 4 != 0) {
        if (Cell* c = any(); c->on_boundary == 0 && !mesh.remove_node_even_level(*c)) {
          mesh.remove_node_odd_level(*c);
        }
        EXPECT_NE(mesh.locate(0.3, 0.4), nullptr);
        continue;
      }
      Vertex v;  // among nodes that do not surround it
      v.p1 = any(), v.p2 = any(), v.p3 = any(), v.p4 = any();
      v.x = (v.p1->x + v.p2->x) / 2.0;
      v.y = (v.p1->y + v.p2->y) / 2.0;
      v.level = 3;
      try {
        mesh.insert_node_odd_level(v);
      } catch (const Error&) {
      }
    }
    const std::vector<const Cell*> nodes = all_nodes(mesh);
    for (const Point p : draw_points(random, mesh, 50)) {
      double nearest = 2.0;
      for (const Cell* c : nodes) nearest = std::min(nearest, distance(*c, p));
      const Cell* start = nodes[random.next() % nodes.size()];
      EXPECT_EQ(distance(*mesh.locate(p.x, p.y, start), p), nearest);
      EXPECT_TRUE(std::isfinite(mesh.value_at(p.x, p.y)));
      EXPECT_FALSE(mesh.line_cut({0.0, 0.0}, p).empty());
    }
  }
}

// ---------------------------------------------------------------------------------------------
// Values
// ---------------------------------------------------------------------------------------------

TEST_F(ValuesAnywhere, TrianglesFillTheDomainAndLinearValuesFollowThem) {
  Mesh mesh = graded_mesh({-1.0, 1.0, 0.0, 2.0}, 9, 0.1, 0.01);
  const Triangulation whole = mesh.triangulation();
  Random random{1};
  double area = 0.0;
  for (const auto& triangle : whole.triangles) {
    const Cell &a = *whole.nodes[static_cast<std::size_t>(triangle[0])],
               &b = *whole.nodes[static_cast<std::size_t>(triangle[1])],
               &c = *whole.nodes[static_cast<std::size_t>(triangle[2])];
    area += ((b.x - a.x) * (c.y - a.y) - (c.x - a.x) * (b.y - a.y)) / 2.0;
    const double u = random.uniform(), v = random.uniform() * (1.0 - u), w = 1.0 - u - v;
    const Point p = {u * a.x + v * b.x + w * c.x, u * a.y + v * b.y + w * c.y};
    EXPECT_NEAR(mesh.value_at(p.x, p.y, 1), u * a.data[1] + v * b.data[1] + w * c.data[1], 1e-13);
    EXPECT_EQ(mesh.value_at(a.x, a.y, 1), a.data[1]);
  }
  EXPECT_NEAR(area, 4.0, 1e-12);

  // Faces at a node that is linked and none of the mesh's are left out.
  const auto nodes = mesh.nodes();
  Cell& original = *std::find_if(nodes.begin(), nodes.end(), [](const Cell& c) {
    return c.n.cell() != nullptr && c.n.cell()->s.cell() == &c;
  });
  Cell copy = original;
  copy.n.cell()->s = &copy;
  EXPECT_LT(mesh.triangulation().triangles.size(), whole.triangles.size());
  copy.n.cell()->s = &original;
}

TEST_F(ValuesAnywhere, ValuesAreWhatTheirRuleSays) {
  const Rectangle far{1e5, 1e5 + 2.0, -3.0, -1.0};
  for (const Rectangle& rectangle : {Rectangle{0.0, 2.0, 0.0, 2.0}, far}) {
    const Mesh mesh = graded_mesh(rectangle, 9, rectangle.x_min + 1.0, 0.01);
    Random random{2};
    const std::vector<Point> points = draw_points(random, mesh, 400);
    const double rounding = 1e-13 * largest_coordinate(mesh);
    for (const Interpolation how :
         {Interpolation::constant, Interpolation::linear, Interpolation::gradient}) {
      const std::vector<double> values = mesh.values_at(points, how);
      ASSERT_EQ(values.size(), 2 * points.size());
      for (std::size_t i = 0; i < points.size(); ++i) {
        const Point p = points[i];
        const Cell* c = mesh.locate(p.x, p.y);
        const bool constant = how == Interpolation::constant;
        const double linear = constant ? c->data[0] : 3.0 * p.x - 2.0 * p.y + 1.0;
        EXPECT_NEAR(values[2 * i], linear, constant ? 0.0 : rounding);
        EXPECT_EQ(mesh.value_at(p.x, p.y, 1, how), values[2 * i + 1]);
      }
    }
    EXPECT_TRUE(std::isnan(mesh.value_at(rectangle.x_max + 1.0, rectangle.y_min)));
    EXPECT_THROW(mesh.value_at(rectangle.x_min, rectangle.y_min, 2), Error);
    EXPECT_THROW(mesh.value_at(rectangle.x_min, rectangle.y_min, -1), Error);
  }
}

// ---------------------------------------------------------------------------------------------
// Lines
// ---------------------------------------------------------------------------------------------

TEST_F(ValuesAnywhere, LinesAreCutWhereCellsMeet) {
  const Mesh mesh = graded_mesh({0.0, 2.0, 0.0, 2.0}, 9, 1.0, 0.01);
  Random random{3};
  for (int i = 0; i < 60; ++i) {
    // Along borders and through corners of cells too, and from outside to outside.
    std::vector<Point> ends = draw_points(random, mesh, 4);
    Point a = ends[static_cast<std::size_t>(i % 4)], b = ends[static_cast<std::size_t>(i / 4 % 4)];
    if (i % 5 == 0) b = {b.x, a.y};
    if (i % 7 == 0) a = {a.x - 3.0, a.y}, b = {b.x + 3.0, b.y};
    const std::vector<LinePiece> pieces = mesh.line_cut(a, b);
    ASSERT_FALSE(pieces.empty());
    const double length = std::hypot(b.x - a.x, b.y - a.y);
    double sum = 0.0;
    for (std::size_t k = 0; k < pieces.size(); ++k) {
      const LinePiece& piece = pieces[k];
      sum += piece.leave - piece.enter;
      if (k > 0) {
        EXPECT_EQ(piece.enter, pieces[k - 1].leave);
        EXPECT_NE(piece.node, pieces[k - 1].node);
      }
      EXPECT_NEAR(std::hypot(piece.from.x - a.x, piece.from.y - a.y), piece.enter, 1e-13);
      const Point middle = {(piece.from.x + piece.to.x) / 2.0, (piece.from.y + piece.to.y) / 2.0};
      const double nearest = distance(*mesh.locate(middle.x, middle.y), middle);
      EXPECT_NEAR(distance(*piece.node, middle), nearest, 1e-14);
    }
    if (i % 7 != 0) {
      EXPECT_NEAR(sum, length, 1e-13);
    }
  }
  EXPECT_TRUE(mesh.line_cut({-1.0, 0.0}, {-1.0, 2.0}).empty());
  EXPECT_TRUE(mesh.line_cut({-1.0, 1.5}, {1.0, 3.5}).empty()) << "past the corner";
  EXPECT_TRUE(mesh.line_cut({0.0, 0.0}, {std::numeric_limits<double>::quiet_NaN(), 0.0}).empty());
  EXPECT_EQ(mesh.line_cut({0.3, 0.3}, {0.3, 0.3}).size(), 1U);
}

// ---------------------------------------------------------------------------------------------
// Two meshes
// ---------------------------------------------------------------------------------------------

/// Area of a control cell inside a rectangle: that of the polygon, cut by its sides.
double area_inside(const Rectangle& r, const Mesh& mesh, const Cell& c) {
  const CellPolygon cell = mesh.polygon(c);
  std::vector<Point> polygon(cell.begin(), cell.end());
  const std::array<std::array<double, 3>, 4> sides = {
      {{1.0, 0.0, r.x_max}, {-1.0, 0.0, -r.x_min}, {0.0, 1.0, r.y_max}, {0.0, -1.0, -r.y_min}}};
  for (const auto& [nx, ny, limit] : sides) {
    const auto beyond = [nx = nx, ny = ny, limit = limit](Point p) {
      return nx * p.x + ny * p.y - limit;
    };
    std::vector<Point> kept;
    for (std::size_t i = 0; i < polygon.size(); ++i) {
      const Point p = polygon[i], q = polygon[(i + 1) % polygon.size()];
      const double at_p = beyond(p), at_q = beyond(q);
      if (at_p <= 0.0) kept.push_back(p);
      if ((at_p < 0.0 && at_q > 0.0) || (at_p > 0.0 && at_q < 0.0)) {
        const double t = at_p / (at_p - at_q);
        kept.push_back({p.x + t * (q.x - p.x), p.y + t * (q.y - p.y)});
      }
    }
    polygon = kept;
  }
  double twice = 0.0;
  for (std::size_t i = 2; i < polygon.size(); ++i) {
    const Point &o = polygon[0], &p = polygon[i - 1], &q = polygon[i];
    twice += (p.x - o.x) * (q.y - o.y) - (q.x - o.x) * (p.y - o.y);
  }
  return 0.5 * twice;
}

TEST_F(ValuesAnywhere, ConservativeTransferKeepsSumsAndRange) {
  struct Case {
    Rectangle rectangle;
    std::int32_t nx;
    double x, finest;
  };
  const Mesh from = graded_mesh({0.0, 2.0, 0.0, 2.0}, 9, 1.0, 0.02);
  const double far_off = 1e300;
  const Case cases[] = {{{0.0, 2.0, 0.0, 2.0}, 9, 1.1, 0.02},    // the same rectangle and lattice
                        {{0.0, 2.0, 0.0, 2.0}, 8, 0.7, 0.004},   // finer, on another lattice
                        {{0.0, 2.0, 0.0, 2.0}, 4, 1.0, 1.0},     // coarse
                        {{0.5, 1.4, 0.3, 1.2}, 6, 0.8, 0.02},    // inside
                        {{-1.0, 1.2, 0.7, 2.9}, 8, 0.5, 0.02}};  // half beyond
  for (const Case& c : cases) {
    SCOPED_TRACE(c.nx);
    Mesh to = graded_mesh(c.rectangle, c.nx, c.x, c.finest);
    for (Cell& node : to.nodes()) node.data[0] = node.data[1] = far_off;
    const std::int64_t nb_written = transfer_conservative(from, to);
    const Rectangle shared = {
        std::max(from.x_min(), to.x_min()), std::min(from.x_max(), to.x_max()),
        std::max(from.y_min(), to.y_min()), std::min(from.y_max(), to.y_max())};
    std::int64_t nb_changed = 0;
    for (const Cell& node : to.nodes()) {
      nb_changed += node.data[1] != far_off;
      const bool is_beyond = area_inside(shared, to, node) == 0.0;
      EXPECT_EQ(is_beyond, node.data[0] == far_off);
    }
    EXPECT_EQ(nb_written, nb_changed);
    for (const std::size_t value : {0U, 1U}) {
      double before = 0.0, after = 0.0, absolute = 0.0, low = far_off, high = -far_off;
      for (const Cell& node : from.nodes()) {
        const double here = area_inside(shared, from, node) * node.data[value];
        before += here;
        absolute += std::abs(here);
        low = std::min(low, node.data[value]);
        high = std::max(high, node.data[value]);
      }
      for (const Cell& node : to.nodes()) {
        if (node.data[value] == far_off) continue;
        after += area_inside(shared, to, node) * node.data[value];
        EXPECT_GE(node.data[value], low - 1e-14);
        EXPECT_LE(node.data[value], high + 1e-14);
      }
      EXPECT_NEAR(after, before, 1e-12 * absolute);
    }
  }
}

TEST_F(ValuesAnywhere, ConservativeTransferTakesFromWhatLiesBelow) {
  // Four cells of the coarse mesh meet in the middle of each of the fine one's cells there.
  Mesh from({0.0, 3.0, 0.0, 3.0}, {.nx = 4, .n_cell_data = 1});
  Mesh to({0.5, 2.5, 0.5, 2.5}, {.nx = 3, .n_cell_data = 2});
  for (Cell& c : from.nodes()) c.data[0] = c.x * c.y * c.y;
  for (Cell& c : to.nodes()) c.data[1] = 7.0;
  EXPECT_EQ(transfer_conservative(from, to), 9);
  EXPECT_DOUBLE_EQ(to.locate(1.5, 1.5)->data[0], (1.0 + 2.0) * (1.0 + 4.0) / 4.0);
  EXPECT_DOUBLE_EQ(to.locate(0.5, 0.5)->data[0], 1.0) << "a quarter of a cell, over one cell";
  EXPECT_EQ(to.locate(1.5, 1.5)->data[1], 7.0) << "the other mesh has one value";
}

TEST_F(ValuesAnywhere, PlainTransferReadsAtTheNodes) {
  const Mesh from = graded_mesh({0.0, 2.0, 0.0, 2.0}, 9, 1.0, 0.02);
  Mesh to = graded_mesh({-1.0, 1.2, 0.7, 2.9}, 8, 0.5, 0.02);
  for (Cell& c : to.nodes()) c.data[0] = c.data[1] = -77.0;
  std::int64_t nb_inside = 0;
  transfer(from, to);
  for (const Cell& c : to.nodes()) {
    const double there = from.value_at(c.x, c.y, 1);
    nb_inside += !std::isnan(there);
    EXPECT_EQ(c.data[1], std::isnan(there) ? -77.0 : there);
  }
  EXPECT_EQ(transfer(from, to, Interpolation::constant), nb_inside);
  EXPECT_GT(nb_inside, 100);
}

}  // namespace
}  // namespace velmar_2d::tests
