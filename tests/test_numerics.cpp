// The parts for solvers, each against what it should be: known solutions, whose errors shrink by
// the order that is promised on uniform and on adapted meshes, and laws that hold to rounding.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <numeric>

#include "velmar_2D/velmar_2D_numerics.hpp"

namespace velmar_2d::numerics {
namespace {

using Values = std::vector<double>;

std::size_t at(std::int32_t i) { return static_cast<std::size_t>(i); }

/// Three sizes of cells, in zones that stay where they are when all become finer.
Mesh adapted_mesh(std::int32_t intervals, const bc_type_function& kinds) {
  Mesh mesh({}, {.nx = intervals + 1, .subdiv_max = 4, .bc_type = kinds});
  const double coarse = mesh.dist_0();
  mesh.resolve([=](double x, double y, auto...) {
    const double from_ring = std::abs(std::hypot(x - 0.3, y - 0.4) - 0.35);
    return from_ring < 0.1 ? 0.25 * coarse : from_ring < 0.25 ? 0.5 * coarse : coarse;
  });
  return mesh;
}
Mesh uniform_mesh(std::int32_t intervals, const bc_type_function& kinds) {
  return Mesh({}, {.nx = intervals + 1, .bc_type = kinds});
}

Values at_nodes(const MeshArrays& arrays, const std::function<double(double, double)>& function) {
  Values values(at(arrays.size()));
  for (std::size_t i = 0; i < values.size(); ++i) {
    values[i] = function(arrays.x()[i], arrays.y()[i]);
  }
  return values;
}

struct Errors {
  double mean = 0.0, square = 0.0, most = 0.0;
};
Errors errors_of(const MeshArrays& arrays, const Values& u, const Values& exact) {
  Errors errors;
  for (std::size_t i = 0; i < u.size(); ++i) {
    const double error = std::abs(u[i] - exact[i]);
    errors.mean += arrays.areas()[i] * error;
    errors.square += arrays.areas()[i] * error * error;
    errors.most = std::max(errors.most, error);
  }
  errors.square = std::sqrt(errors.square);
  return errors;
}

double order(double coarse, double fine) { return std::log2(coarse / fine); }

/// Orders in the mean, the root of the mean square and the maximum, for who reads them.
void report(const char* what, const Errors& coarse, const Errors& fine) {
  std::printf("%-40s %5.2f %5.2f %5.2f\n", what, order(coarse.mean, fine.mean),
              order(coarse.square, fine.square), order(coarse.most, fine.most));
}

void solve(const SparseMatrix& matrix, std::span<const double> right, std::span<double> solution) {
  ASSERT_GE(conjugate_gradients(matrix, right, solution, 1e-13), 0);
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

// ---------------------------------------------------------------------------------------------
// Steps in time
// ---------------------------------------------------------------------------------------------

/// u_t = Laplacian(u) - u^2 + source on a few nodes, with a side that is led through time. The
/// exact solution is quadratic in x and y, which the uniform grid's fluxes do without error.
class InTime {
 public:
  InTime() : mesh_(uniform_mesh(4, kind_by_side(1, 0, 1, 0))), arrays_(mesh_) {
    update(flux_, arrays_, 1.0);
  }
  static double exact(double x, double time) {
    return (1.0 + x * (1.0 - x)) * (2.0 + std::sin(time));
  }
  static double source(double x, double time) {
    return (1.0 + x * (1.0 - x)) * std::cos(time) + 2.0 * (2.0 + std::sin(time));
  }
  Balance balance() const { return {flux_.matrix, arrays_.areas(), arrays_.known()}; }
  Values known_at(double time) const {
    return at_nodes(arrays_, [=](double x, double) { return exact(x, time); });
  }
  void linear_source(double time, std::span<double> all) const {
    for (std::size_t i = 0; i < all.size(); ++i) {
      all[i] = arrays_.areas()[i] * source(arrays_.x()[i], time);
    }
  }
  /// With -u^2, and a source against it.
  void reaction(double time, std::span<const double> u, std::span<double> f,
                std::span<double> slope) const {
    for (std::size_t i = 0; i < u.size(); ++i) {
      const double x = arrays_.x()[i];
      f[i] = source(x, time) + exact(x, time) * exact(x, time) - u[i] * u[i];
      if (with_slope) slope[i] = -2.0 * u[i];
    }
  }
  void rate(double time, std::span<const double> u, std::span<double> change) const {
    Values f(u.size()), slope(u.size());
    balance_rate(balance(), u, change);
    reaction(time, u, f, slope);
    for (std::size_t i = 0; i < u.size(); ++i) {
      const bool known = arrays_.known()[i] != 0;
      change[i] = known ? (1.0 + arrays_.x()[i] * (1.0 - arrays_.x()[i])) * std::cos(time)
                        : change[i] + f[i];
    }
  }
  /// Largest error at time 1 after so many steps.
  template <typename Step>
  double error_after(int steps, const Step& make_step) {
    Values u = known_at(0.0);
    for (int k = 0; k < steps; ++k) {
      make_step(static_cast<double>(k) / steps, 1.0 / steps, u);
    }
    return errors_of(arrays_, u, known_at(1.0)).most;
  }
  bool with_slope = true;
  Work work;

 private:
  Mesh mesh_;
  MeshArrays arrays_;
  FluxMatrix flux_;
};

TEST(Steps, ImplicitOnesHaveTheirOrders) {
  InTime problem;
  const source_function source = [&](double time, std::span<double> all) {
    problem.linear_source(time, all);
  };
  for (const auto& [scheme, expected] : {std::pair{Scheme::backward_euler, 1.0},
                                         {Scheme::crank_nicolson, 2.0},
                                         {Scheme::tr_bdf2, 2.0}}) {
    const auto step = [&, chosen = scheme](double time, double length, Values& u) {
      implicit_step(chosen, problem.balance(), time, length, source, u, solve, problem.work,
                    problem.known_at(time + length));
    };
    const double coarse = problem.error_after(8, step), fine = problem.error_after(16, step);
    EXPECT_NEAR(order(coarse, fine), expected, 0.15) << static_cast<int>(scheme) << ' ' << fine;
  }
  for (const bool with_slope : {true, false}) {
    problem.with_slope = with_slope;
    const auto step = [&](double time, double length, Values& u) {
      rosenbrock_step(
          problem.balance(), time, length,
          [&](double t, auto v, auto f, auto slope) { problem.reaction(t, v, f, slope); }, u, solve,
          problem.work, problem.known_at(time + length));
    };
    const double coarse = problem.error_after(16, step), fine = problem.error_after(32, step);
    EXPECT_NEAR(order(coarse, fine), 2.0, 0.2) << with_slope << ' ' << fine;
  }
}

TEST(Steps, ExplicitOnesHaveTheirOrders) {
  InTime problem;
  const rate_function rate = [&](double time, auto u, auto change) {
    problem.rate(time, u, change);
  };
  const auto order_of = [&](int steps, const auto& step) {
    const double coarse = problem.error_after(steps, step),
                 fine = problem.error_after(2 * steps, step);
    return order(coarse, fine);
  };
  EXPECT_NEAR(order_of(128, [&](double t, double dt,
                                Values& u) { heun_step(t, dt, rate, u, problem.work); }),
              2.0, 0.15);
  EXPECT_NEAR(order_of(64, [&](double t, double dt,
                               Values& u) { runge_kutta_step(t, dt, rate, u, problem.work); }),
              3.0, 0.2);
  EXPECT_NEAR(order_of(64, [&](double t, double dt,
                               Values& u) { stabilised_step(t, dt, 7, rate, u, problem.work); }),
              2.0, 0.15);
}

/// Factors by squares read one half of a matrix, so that both must be empty there.
TEST(Steps, EliminateKnownNodesSymmetrically) {
  InTime problem;
  const Balance balance = problem.balance();
  Values u = problem.known_at(0.0);
  implicit_step(Scheme::tr_bdf2, balance, 0.0, 0.1, {}, u, solve, problem.work);
  const SparseMatrix& matrix = problem.work.matrix;
  std::size_t to_known = 0;
  for (std::int32_t i = 0; i < matrix.size(); ++i) {
    for (std::int32_t k = matrix.row_begin[at(i)]; k < matrix.row_begin[at(i) + 1]; ++k) {
      const std::int32_t j = matrix.columns[at(k)];
      if (i == j || (balance.known[at(i)] == 0 && balance.known[at(j)] == 0)) continue;
      ++to_known;
      EXPECT_EQ(matrix.values[at(k)], 0.0) << i << ' ' << j;
    }
  }
  EXPECT_EQ(to_known, 36U);  // two sides of 4 faces along and 5 across, each seen twice
}

/// Noise decays under the longest steps that are said to be stable, and not under longer ones. Of
/// the implicit schemes two damp it under steps of any length.
TEST(Steps, AreStableAsFarAsIsSaid) {
  Mesh mesh = adapted_mesh(8, same_kind(bc_type_neu));
  const MeshArrays arrays(mesh);
  FluxMatrix flux;
  update(flux, arrays, 0.1);
  const Balance balance{flux.matrix, arrays.areas()};
  const double euler = stable_step(flux.matrix, arrays.areas());
  const rate_function rate = [&](double, auto u, auto change) { balance_rate(balance, u, change); };
  const auto noise_after = [&](int steps, const auto& step) {
    Values u(at(arrays.size()));
    for (std::size_t i = 0; i < u.size(); ++i) u[i] = (i * 2654435761u) % 1024 < 512 ? -1.0 : 1.0;
    Work work;
    for (int k = 0; k < steps; ++k) step(u, work);
    return std::abs(*std::ranges::max_element(u, {}, [](double v) { return std::abs(v); }));
  };
  for (const double share : {1.0, 2.5}) {
    const double heun = noise_after(
        300, [&](Values& u, Work& work) { heun_step(0.0, share * euler, rate, u, work); });
    const double stabilised = noise_after(300, [&](Values& u, Work& work) {
      stabilised_step(0.0, share * 27.0 * euler, 10, rate, u, work);
    });
    EXPECT_EQ(heun < 1.0, share == 1.0) << heun;
    EXPECT_EQ(stabilised < 1.0, share == 1.0) << stabilised;
  }
  EXPECT_EQ(stages_for(26.9 * euler, euler), 11);
  for (const Scheme scheme : {Scheme::backward_euler, Scheme::tr_bdf2, Scheme::crank_nicolson}) {
    const double left = noise_after(3, [&](Values& u, Work& work) {
      implicit_step(scheme, balance, 0.0, 1e5 * euler, {}, u, solve, work);
    });
    EXPECT_EQ(left < 0.1, scheme != Scheme::crank_nicolson) << left;
  }
}

}  // namespace
}  // namespace velmar_2d::numerics
