// The parts for solvers, each against what it should be: known solutions, whose errors shrink by
// the order that is promised on uniform and on adapted meshes, and laws that hold to rounding.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <numeric>

#include "support/numerics.hpp"

namespace velmar_2d::numerics {
namespace {

/// Orders in the mean, the root of the mean square and the maximum, for who reads them.
void report(const char* what, const Errors& coarse, const Errors& fine) {
  std::printf("%-40s %5.2f %5.2f %5.2f\n", what, order(coarse.mean, fine.mean),
              order(coarse.square, fine.square), order(coarse.most, fine.most));
}

// ---------------------------------------------------------------------------------------------
// The matrix and the faces
// ---------------------------------------------------------------------------------------------

TEST(FluxMatrix, IsThatOfLinearElementsOnTheTriangles) {
  Mesh mesh = adapted_mesh(16, {});
  const MeshArrays arrays(mesh);
  FluxMatrix flux;
  ASSERT_TRUE(update(flux, arrays, 3.0));
  std::map<std::pair<std::int32_t, std::int32_t>, double> expected;
  const Triangulation triangulation = mesh.triangulation();
  for (const auto& triangle : triangulation.triangles) {
    for (std::size_t k = 0; k < 3; ++k) {  // the angle at corner k faces the edge a-b
      const std::int32_t a = triangle[(k + 1) % 3], b = triangle[(k + 2) % 3];
      const Cell &c = *triangulation.nodes[at(triangle[k])], &p = *triangulation.nodes[at(a)],
                 &q = *triangulation.nodes[at(b)];
      const double dot = (p.x - c.x) * (q.x - c.x) + (p.y - c.y) * (q.y - c.y);
      const double cross = (p.x - c.x) * (q.y - c.y) - (p.y - c.y) * (q.x - c.x);
      const double weight = 3.0 * 0.5 * dot / cross;
      expected[{a, b}] -= weight, expected[{b, a}] -= weight;
      expected[{a, a}] += weight, expected[{b, b}] += weight;
    }
  }
  std::erase_if(expected, [](const auto& entry) { return std::abs(entry.second) < 1e-9; });
  const SparseMatrix& matrix = flux.matrix;
  ASSERT_EQ(matrix.values.size(), expected.size());
  auto next = expected.begin();  // row by row, columns ascending
  for (std::int32_t i = 0; i < matrix.size(); ++i) {
    EXPECT_EQ(matrix.columns[at(matrix.diagonal[at(i)])], i);
    for (std::int32_t k = matrix.row_begin[at(i)]; k < matrix.row_begin[at(i) + 1]; ++k, ++next) {
      ASSERT_EQ(next->first, std::make_pair(i, matrix.columns[at(k)]));
      ASSERT_NEAR(next->second, matrix.values[at(k)], 1e-12);
    }
  }
}

TEST(FluxMatrix, IsKeptWhileTheMeshStands) {
  Mesh mesh = adapted_mesh(8, {});
  MeshArrays arrays(mesh);
  FluxMatrix flux, of_faces;
  update(flux, arrays, 1.0);
  const std::uint64_t pattern = flux.matrix.pattern, version = flux.matrix.version;
  EXPECT_FALSE(update(flux, arrays, 1.0));
  EXPECT_EQ(flux.matrix.version, version);
  EXPECT_TRUE(update(flux, arrays, 2.0));
  EXPECT_NE(flux.matrix.version, version);
  EXPECT_EQ(flux.matrix.pattern, pattern);

  const Faces faces = faces_of(arrays);
  update(of_faces, arrays, faces, Values(faces.size(), 2.0));
  EXPECT_EQ(of_faces.matrix.values, flux.matrix.values);
  update(of_faces, arrays, Values(at(arrays.size()), 2.0));
  EXPECT_EQ(of_faces.matrix.values, flux.matrix.values);

  mesh.resolve([](auto...) { return 0.1; });
  arrays.update();
  EXPECT_TRUE(update(flux, arrays, 2.0));
  EXPECT_EQ(flux.matrix.size(), arrays.size());
  EXPECT_THROW(update(of_faces, arrays, faces, Values(faces.size(), 2.0)), Error);
  EXPECT_THROW(update(flux, arrays, Values(3)), Error);
}

/// A layer that conducts a tenth, from 1/4 on: what flows through both is the same, and known.
TEST(FluxMatrix, TakesTheHarmonicMeanWhereCoefficientsJump) {
  Mesh mesh({}, {.nx = 9, .bc_type = kind_by_side(1, 0, 1, 0)});
  const MeshArrays arrays(mesh);
  const double jump = 0.5 * (0.25 + 0.375);  // between two columns of nodes
  FluxMatrix flux;
  update(flux, arrays, at_nodes(arrays, [=](double x, double) { return x < jump ? 1.0 : 0.1; }));
  const double resistance = jump + 10.0 * (1.0 - jump);
  const auto exact = [=](double x, double) {
    return (x < jump ? x : jump + 10.0 * (x - jump)) / resistance;
  };
  Values u = at_nodes(arrays, [](double x, double) { return x < 0.5 ? 0.0 : 1.0; });
  Work work;
  steady_state({flux.matrix, arrays.areas(), arrays.known()}, Values(u.size()), u, solve, work);
  EXPECT_LT(errors_of(arrays, u, at_nodes(arrays, exact)).most, 1e-11);
}

/// Each cell is closed, and has its area: int div(x, y) = 2 area. A wrong middle of a face or of a
/// piece of a side spoils the moments.
TEST(Faces, BoundTheCells) {
  Mesh mesh = adapted_mesh(16, {});
  const MeshArrays arrays(mesh);
  const Faces faces = faces_of(arrays);
  const SidePieces pieces = side_pieces_of(arrays);
  const std::size_t n = at(arrays.size());
  Values closed_x(n), closed_y(n), xx(n), xy(n), yx(n), yy(n);
  const auto add = [&](std::size_t i, Point normal, double x, double y) {
    x -= arrays.x()[i], y -= arrays.y()[i];
    closed_x[i] += normal.x, closed_y[i] += normal.y;
    xx[i] += x * normal.x, xy[i] += x * normal.y, yx[i] += y * normal.x, yy[i] += y * normal.y;
  };
  for (std::size_t f = 0; f < faces.size(); ++f) {
    const Point unit = unit_vector(faces.direction[f]);
    const Point normal{faces.length[f] * unit.x, faces.length[f] * unit.y};
    add(at(faces.from[f]), normal, faces.middle_x[f], faces.middle_y[f]);
    add(at(faces.to[f]), {-normal.x, -normal.y}, faces.middle_x[f], faces.middle_y[f]);
  }
  double around = 0.0;
  for (std::size_t p = 0; p < pieces.size(); ++p) {
    const Point unit = unit_vector(pieces.side[p]);
    add(at(pieces.node[p]), {pieces.length[p] * unit.x, pieces.length[p] * unit.y}, pieces.x[p],
        pieces.y[p]);
    // The middle of the piece, which is not here, counts along the side.
    (unit.x == 0.0 ? xy : yx)[at(pieces.node[p])] = std::nan("");
    around += pieces.length[p];
  }
  EXPECT_NEAR(around, 4.0, 1e-12);
  for (std::size_t i = 0; i < n; ++i) {
    const double area = arrays.areas()[i];
    ASSERT_LT(std::hypot(closed_x[i], closed_y[i]), 1e-14) << i;
    ASSERT_NEAR(xx[i], area, 1e-12 * area) << arrays.x()[i] << ' ' << arrays.y()[i];
    ASSERT_NEAR(yy[i], area, 1e-12 * area) << arrays.x()[i] << ' ' << arrays.y()[i];
    for (const double mixed : {xy[i], yx[i]}) {
      ASSERT_TRUE(std::isnan(mixed) || std::abs(mixed) < 1e-12 * area) << i;
    }
  }
}

// ---------------------------------------------------------------------------------------------
// Orders in space
// ---------------------------------------------------------------------------------------------

/// A solution of -Laplacian(u) = source, and what it is at the sides.
struct Problem {
  static double exact(double x, double y) { return std::sin(2.0 * x + 0.3) * std::cosh(y) + x * y; }
  static double source(double x, double y) { return 3.0 * std::sin(2.0 * x + 0.3) * std::cosh(y); }
  static double du_dn(double x, double y, Direction side) {
    const Point n = unit_vector(side);
    return n.x * (2.0 * std::cos(2.0 * x + 0.3) * std::cosh(y) + y) +
           n.y * (std::sin(2.0 * x + 0.3) * std::sinh(y) + x);
  }
};

Errors errors_of_steady_state(Mesh mesh) {
  const MeshArrays arrays(mesh);
  FluxMatrix flux;
  update(flux, arrays, 1.0);
  const SidePieces pieces = side_pieces_of(arrays);
  Values source = at_nodes(arrays, Problem::source), u(source.size());
  for (std::size_t i = 0; i < u.size(); ++i) {
    source[i] *= arrays.areas()[i];
    if (arrays.known()[i] != 0) u[i] = Problem::exact(arrays.x()[i], arrays.y()[i]);
  }
  add_inflow(pieces, bc_type_neu, Problem::du_dn, source);
  const auto rate = [](double x, double, Direction) { return 2.0 + x; };
  const auto outside = [&](double x, double y, Direction side) {
    return Problem::exact(x, y) + Problem::du_dn(x, y, side) / rate(x, y, side);
  };
  add_exchange(pieces, bc_type_oth, rate, outside, flux.matrix, source);
  Work work;
  steady_state({flux.matrix, arrays.areas(), arrays.known()}, source, u, solve, work);
  return errors_of(arrays, u, at_nodes(arrays, Problem::exact));
}

TEST(Orders, SteadyStateWithAllConditions) {
  for (const auto make : {uniform_mesh, adapted_mesh}) {
    const auto kinds = kind_by_side(bc_type_neu, bc_type_oth, bc_type_neu, bc_type_dir);
    const Errors coarse = errors_of_steady_state(make(16, kinds)),
                 fine = errors_of_steady_state(make(32, kinds));
    report(make == uniform_mesh ? "steady state, uniform" : "steady state, adapted", coarse, fine);
    EXPECT_GT(order(coarse.square, fine.square), 1.85);
    EXPECT_GT(order(coarse.most, fine.most), 1.7);
  }
}

TEST(Orders, GradientAndDivergence) {
  const auto field = [](double x, double y) { return std::sin(2.0 * x + 1.0) * std::cos(3.0 * y); };
  const auto by_x = [](double x, double y) {
    return 2.0 * std::cos(2.0 * x + 1.0) * std::cos(3.0 * y);
  };
  const auto by_y = [](double x, double y) {
    return -3.0 * std::sin(2.0 * x + 1.0) * std::sin(3.0 * y);
  };
  struct Found {
    Errors gradient, divergence;
  };
  const auto errors = [&](Mesh mesh) {
    const MeshArrays arrays(mesh);
    const Faces faces = faces_of(arrays);
    const SidePieces pieces = side_pieces_of(arrays);
    const Values u = at_nodes(arrays, field);
    Values du_dx(u.size()), du_dy(u.size()), divergences(u.size()), through(faces.size()),
        out(pieces.size());
    gradient(arrays, at_nodes(arrays, [](double x, double y) { return 2.0 * x - 3.0 * y; }), du_dx,
             du_dy);
    EXPECT_LT(errors_of(arrays, du_dx, Values(u.size(), 2.0)).most, 1e-12);
    EXPECT_LT(errors_of(arrays, du_dy, Values(u.size(), -3.0)).most, 1e-12);
    gradient(arrays, u, du_dx, du_dy);
    fluxes_of(faces, pieces, at_nodes(arrays, by_x), at_nodes(arrays, by_y), through, out);
    divergence(faces, through, pieces, out, arrays.areas(), divergences);
    const double sum =
        std::inner_product(divergences.begin(), divergences.end(), arrays.areas().begin(), 0.0);
    EXPECT_NEAR(sum, std::accumulate(out.begin(), out.end(), 0.0), 1e-11);
    return Found{errors_of(arrays, du_dx, at_nodes(arrays, by_x)),
                 errors_of(arrays, divergences, at_nodes(arrays, [&](double x, double y) {
                             return -13.0 * field(x, y);
                           }))};
  };
  const Found uniform = errors(uniform_mesh(32, {})), uniform_fine = errors(uniform_mesh(64, {}));
  const Found adapted = errors(adapted_mesh(32, {})), adapted_fine = errors(adapted_mesh(64, {}));
  report("gradient, uniform", uniform.gradient, uniform_fine.gradient);
  report("gradient, adapted", adapted.gradient, adapted_fine.gradient);
  report("divergence, uniform", uniform.divergence, uniform_fine.divergence);
  report("divergence, adapted", adapted.divergence, adapted_fine.divergence);
  EXPECT_GT(order(uniform.gradient.mean, uniform_fine.gradient.mean), 1.9);
  EXPECT_GT(order(adapted.gradient.mean, adapted_fine.gradient.mean), 1.75);
  EXPECT_GT(order(uniform.divergence.mean, uniform_fine.divergence.mean), 1.9);
  // Where cells change their size fluxes through faces are of first order, and by area of none.
  EXPECT_GT(order(adapted.divergence.mean, adapted_fine.divergence.mean), 0.9);
}

// ---------------------------------------------------------------------------------------------
// Advection
// ---------------------------------------------------------------------------------------------

/// A constant wind through a mesh, from exact values at the sides where it comes in.
class Carried {
 public:
  static constexpr double wind_x = 0.8, wind_y = 0.35;
  Carried(Mesh mesh, std::function<double(double, double)> shape)
      : shape_(std::move(shape)),
        mesh_(std::move(mesh)),
        arrays_(mesh_),
        faces_(faces_of(arrays_)),
        pieces_(side_pieces_of(arrays_)),
        wind_(faces_.size()),
        side_wind_(pieces_.size()) {
    const Values x(at(arrays_.size()), wind_x), y(at(arrays_.size()), wind_y);
    fluxes_of(faces_, pieces_, x, y, wind_, side_wind_);
  }
  Values exact(double time) const {
    return at_nodes(
        arrays_, [&](double x, double y) { return shape_(x - wind_x * time, y - wind_y * time); });
  }
  /// By Heun's steps of the length that is said to be stable; `watch` sees each.
  template <typename Watch>
  Values carry(Upwind upwind, double until, const Watch& watch) {
    const int steps = static_cast<int>(std::ceil(until / longest_step(upwind)));
    Values u = exact(0.0), through(faces_.size()), out(pieces_.size()), inflow(pieces_.size());
    Work work;
    for (int k = 0; k < steps; ++k) {
      const double step = until / steps;
      const auto rate = [&](double time, std::span<const double> v, std::span<double> change) {
        for (std::size_t p = 0; p < inflow.size(); ++p) {
          inflow[p] = shape_(pieces_.x[p] - wind_x * time, pieces_.y[p] - wind_y * time);
        }
        advection_fluxes(upwind, arrays_, faces_, pieces_, wind_, side_wind_, v, inflow, through,
                         out);
        divergence(faces_, through, pieces_, out, arrays_.areas(), change);
        for (double& c : change) c = -c;
      };
      heun_step(k * step, step, rate, u, work);
      watch(u);
    }
    return u;
  }
  const MeshArrays& arrays() const { return arrays_; }
  double longest_step(Upwind upwind) const {
    return stable_step(upwind, faces_, pieces_, wind_, side_wind_, arrays_.areas());
  }

 private:
  std::function<double(double, double)> shape_;
  Mesh mesh_;
  MeshArrays arrays_;
  Faces faces_;
  SidePieces pieces_;
  Values wind_, side_wind_;
};

TEST(Orders, Advection) {
  const auto shape = [](double x, double y) { return 1.5 + std::sin(5.0 * x) * std::cos(4.0 * y); };
  const auto order_of = [&](const char* what, Upwind upwind, const auto& make) {
    std::array<Errors, 2> errors{};
    for (std::size_t k = 0; k < 2; ++k) {
      Carried carried(make(k == 0 ? 16 : 32, {}), shape);
      const Values u = carried.carry(upwind, 0.2, [](const Values&) {});
      errors[k] = errors_of(carried.arrays(), u, carried.exact(0.2));
    }
    report(what, errors[0], errors[1]);
    return order(errors[0].mean, errors[1].mean);
  };
  for (const auto make : {uniform_mesh, adapted_mesh}) {
    EXPECT_GT(order_of("advection, first order", Upwind::first_order, make), 0.8);
    EXPECT_GT(order_of("advection, bounded", Upwind::bounded, make), 1.7);
    EXPECT_GT(order_of("advection, positive", Upwind::positive, make), 1.7);
  }
}

/// Over a step of values no scheme makes a new extreme; a bump next to nothing stays above it.
TEST(Advection, KeepsItsBounds) {
  const auto step = [](double x, double y) {
    return std::hypot(x - 0.3, y - 0.35) < 0.15 ? 1.0 : 0.0;
  };
  // The cell at the corner where the wind leaves: a quarter of a square, two halves of its sides.
  const Carried corner(uniform_mesh(8, {}), step);
  const double until_empty = 0.5 / 8.0 / (Carried::wind_x + Carried::wind_y);
  EXPECT_NEAR(corner.longest_step(Upwind::first_order), until_empty, 1e-14);
  EXPECT_NEAR(corner.longest_step(Upwind::bounded), 0.5 * until_empty, 1e-14);
  for (const Upwind upwind : {Upwind::first_order, Upwind::bounded, Upwind::positive}) {
    Carried carried(adapted_mesh(16, {}), step);
    double least = 1.0, most = 0.0;
    const Values u = carried.carry(upwind, 0.4, [&](const Values& now) {
      least = std::min(least, *std::ranges::min_element(now));
      most = std::max(most, *std::ranges::max_element(now));
    });
    EXPECT_GE(least, upwind == Upwind::positive ? 0.0 : -1e-15);
    EXPECT_LE(most, upwind == Upwind::positive ? 2.0 : 1.0 + 1e-14);
  }
}

}  // namespace
}  // namespace velmar_2d::numerics
