// Gradient and Hessian of the data at each node of whole meshes.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <random>

#include "support/child_process.hpp"
#include "support/derivatives.hpp"
#include "velmar_2D/derivatives/derivatives.hpp"

namespace velmar_2d::tests {
namespace {

using Indicators = std::array<double, 4>;  // dx, dy and both norms

template <typename Compute>
Indicators derivatives_at(Compute&& compute, Cell* c) {
  Indicators d{};
  compute(c, &d[0], &d[1]);
  d[2] = c->grad_data;
  d[3] = c->grad2_data;
  return d;
}

// Searches that are spared, orders that are computed at once, conditions that are proven instead
// of estimated: none of it may change which stencil is accepted at any node. Another stencil
// changes the second derivatives in their first digits. Nor may what a workspace held before.
TEST_F(Derivatives, ByShortcutsAreThoseOfTheRule) {
  const detail::State& state = detail::default_state();
  detail::Workspace work;
  const Domain domains[] = {{0, 0, 1},    {10, 10, 1},      {3, 2, 1},   {2, -5, 1},
                            {-1, 4, 2.0}, {0, 0, 1000},     {1e3, 0, 1}, {0, 0, 1e-6},
                            {0, 0, 1e9},  {1e10, -1e9, 1e9}};
  int nb_by_neighbours[9] = {};
  for (const Domain& domain : domains) {
    for (const int limit : {0, 1, 4, 9}) {
      make_mesh(domain, 0.4, 4, 5, limit, limit == 0 ? 1 : 8, wave);
      for (Cell* c = mesh_beg; c != nullptr; c = c->next) {
        const auto by_rule = [&](auto... arguments) {
          detail::compute_data_at_node_by_rule(state, work, arguments...);
        };
        const auto by_shortcuts = [&](auto... arguments) {
          std::memset(&work.list_1, 0xff, sizeof work.list_1);
          std::memset(&work.list_2, 0xff, sizeof work.list_2);
          detail::compute_data_at_node(state, work, arguments...);
        };
        const Indicators rule = derivatives_at(by_rule, c);
        const Indicators found = derivatives_at(by_shortcuts, c);
        ASSERT_EQ(found, derivatives_at([](auto... a) { compute_data_at_node(a...); }, c));
        const double h = dist_0 / std::exp2(c->level / 2.0);  // the values are of the order of 1
        for (std::size_t i = 0; i < 4; ++i) {
          ASSERT_NEAR(found[i], rule[i], 1e-12 / (i == 3 ? h * h : h))
              << "node " << c->id << " at " << c->x << ", " << c->y << " of level " << c->level;
        }
        int nb_neighbours = 0;
        for (int way = 0; way < 8; ++way) nb_neighbours += detail::link(*c, way).cell() != nullptr;
        ++nb_by_neighbours[nb_neighbours];
      }
      delete_mesh();
    }
  }
  for (const int n : {3, 4, 5, 6}) EXPECT_GE(nb_by_neighbours[n], 100) << n << " neighbours";
  EXPECT_GE(nb_by_neighbours[1], 4);
}

// Squares are squares however deep they lie; the Hessian counts with 32-bit powers of two.
TEST_F(Derivatives, OfSquaresAtDeepLevels) {
  dist_0 = 0.75;
  for (const int level : {30, 32, 33, 1000, 1023, 1024, 2001}) {
    const double h = std::ldexp(dist_0, -(level / 2)) / (level % 2 == 0 ? 1 : 2);
    const int turn = level % 2;
    Cell c, neighbours[4], far;
    c.level = level;
    const auto place = [h](Cell& cell, int direction, const Cell& from) {
      const auto i = static_cast<std::size_t>(direction);
      cell.x = from.x + h * detail::away_x[i];
      cell.y = from.y + h * detail::away_y[i];
      cell.data.resize(1);
      cell.data[0] = 2.0 * cell.x / h + 3.0 * cell.y / h;
    };
    for (int i = 0; i < 4; ++i) {
      place(neighbours[i], 2 * i + turn, c);
      detail::link(c, 2 * i + turn) = &neighbours[i];
    }
    place(far, 2 + turn, neighbours[0]);
    detail::link(neighbours[0], 2 + turn) = detail::link(neighbours[1], turn) = &far;
    double dx = 0.0, dy = 0.0;
    compute_data_at_node(&c, &dx, &dy);
    EXPECT_NEAR(dx * h, 2.0, 1e-12) << "level " << level;
    EXPECT_NEAR(dy * h, 3.0, 1e-12);
    EXPECT_NEAR(c.grad2_data * (level < 32 ? h * h : 1.0), 0.0, 1e-12);
  }
}

// A quadratic is differentiated exactly wherever the domain lies and however fine the mesh is.
TEST_F(Derivatives, OfQuadraticsAreExactOnAnyDomain) {
  std::mt19937 random(4);
  std::uniform_real_distribution<double> coefficient(-1.0, 1.0);
  for (const double size : {1e-6, 1.0, 1e9}) {
    for (const double away : {0.0, 10.0, 1000.0}) {
      double b[6];
      for (double& value : b) value = coefficient(random);
      const auto quadratic = [&b](double x, double y) {
        return b[0] + b[1] * x + b[2] * y + b[3] * x * x + b[4] * y * y + b[5] * x * y;
      };
      const Domain domain{away * size, -away * size, size};
      make_mesh(domain, 0.0, 3, 3, 18, 20, quadratic);
      const double hessian =
          std::sqrt(4 * b[3] * b[3] + 4 * b[4] * b[4] + 2 * b[5] * b[5]) / (size * size);
      double gradient_error = 0.0, hessian_error = 0.0, largest_gradient = 0.0;
      int deepest = 0;
      for (Cell* c = mesh_beg; c != nullptr; c = c->next) {
        if (c->on_boundary != 0) continue;
        double dx = 0.0, dy = 0.0;
        compute_data_at_node(c, &dx, &dy);
        const double x = (c->x - domain.x) / size, y = (c->y - domain.y) / size;
        const double gx = (b[1] + 2 * b[3] * x + b[5] * y) / size;
        const double gy = (b[2] + 2 * b[4] * y + b[5] * x) / size;
        largest_gradient = std::max(largest_gradient, std::hypot(gx, gy));
        gradient_error = std::max({gradient_error, std::hypot(dx - gx, dy - gy),
                                   std::abs(c->grad_data - std::hypot(gx, gy))});
        // A gradient that is off by its rounding changes by it over one spacing.
        const double h = dist_0 / std::exp2(c->level / 2.0);
        hessian_error = std::max(hessian_error, h * std::abs(c->grad2_data - hessian));
        deepest = std::max(deepest, c->level);
      }
      EXPECT_GE(deepest, 17);
      EXPECT_LE(gradient_error, 1e-8 * largest_gradient) << size << " at " << away;
      EXPECT_LE(hessian_error, 1e-8 * largest_gradient) << size << " at " << away;
      if (away <= 10.0) {
        EXPECT_LE(gradient_error, 1e-11 * largest_gradient) << size << " at " << away;
      }
      delete_mesh();
    }
  }
}

// Weights that are kept by shape stand for the fit of each stencil, and for its acceptance; on
// domains too where rounding has moved the nodes off their lattice, far more than the tolerance.
TEST_F(Derivatives, ByShapeAreThoseOfTheFit) {
  const auto quadratic = [](double x, double y) {
    return 0.3 - x + 0.7 * y + 0.9 * x * x - 0.4 * y * y + 1.3 * x * y;
  };
  const detail::State& state = detail::default_state();
  detail::Workspace work;
  int nb_by_rows[detail::Stencil::capacity + 1] = {}, nb_others = 0, nb_certain = 0, nb_moved = 0;
  for (const Domain& domain :
       {Domain{0, 0, 1}, Domain{0.3, -0.2, 0.7}, Domain{-30, 2, 0.1}, Domain{1e5, 1e5, 3}}) {
    make_mesh(domain, 0.4, 6, 5, 10, 4, wave);
    for (std::uint64_t seed = 0; seed < 4; ++seed) {
      update_mesh_init(scenarios::random_spacing(seed, 0.1, dist_0 / 32, dist_0), wave);
    }
    for (Cell* c = mesh_beg; c != nullptr; c = c->next) {
      const double x = (c->x - domain.x) / domain.size, y = (c->y - domain.y) / domain.size;
      c->data[0] = domain.x == 0 ? wave(x, y) : quadratic(x, y);
    }
    for (Cell* c = mesh_beg; c != nullptr; c = c->next) {
      const std::string where =
          "node " + std::to_string(c->id) + ", domain at " + std::to_string(domain.x);
      detail::Stencil list{};
      detail::Candidates candidates{};
      int n = 0, n_candidates = 0;
      detail::append_row(list, n, *c);
      detail::extract_neighbors(c, list, n);
      if (n < 4) continue;
      if (n < 6) {
        detail::extract_ids(c, list);
        detail::extract_neighbors_neighbors(c, candidates, n_candidates);
        work.order =
            c->id % 2 == 0 ? detail::CandidateOrder::by_age : detail::CandidateOrder::by_place;
        detail::order_candidates(work, list, n, candidates, n_candidates);
        const Cell* first = detail::first_candidate(c, work.order);
        ASSERT_TRUE(first != nullptr && n_candidates >= 2) << where;
        ASSERT_EQ(first->id, detail::id_of(candidates.id[0])) << where;
        for (int i = 0; n < 6; ++i) detail::copy_row(list, n++, candidates, i);
      }
      const detail::FitOperator* op = detail::find_operator(state, work, c, list, n);
      double e[5], d[5];  // dx2, dy2, dxdy, dx, dy
      bool accepted = false;
      detail::fit_hessian_centred(state, work, c, list, n, e[0], e[1], e[2], e[3], e[4], accepted);
      if (op == nullptr) {
        nb_others += accepted ? 1 : 0;
        continue;
      }
      ASSERT_TRUE(accepted) << where;
      detail::apply_operator(state.domain, *op, c, list, n, d[0], d[1], d[2], d[3], d[4]);
      const double h = dist_0 / std::exp2(c->level / 2.0);
      double change = 0.0;
      bool moved = false;
      for (int i = 0; i < n; ++i) {
        change = std::max(change, std::abs(list.value[i] - list.value[0]));
        const double quarters = 4.0 * (list.x[i] - c->x) / (dist_0 / std::exp2(c->level / 2));
        moved = moved || std::abs(quarters - std::round(quarters)) > 1e-10;
      }
      nb_moved += moved ? 1 : 0;
      for (int i = 0; i < 5; ++i) {
        ASSERT_NEAR(d[i] * (i < 3 ? h * h : h), e[i] * (i < 3 ? h * h : h), 1e-12 * change)
            << where;
      }
      ++nb_by_rows[n];
      if (n != 6 || !detail::acceptance_is_certain(state.domain, *op, c, list)) continue;
      ++nb_certain;
      detail::fit_hessian_6pts(state, work, c, list, n, e[0], e[1], e[2], e[3], e[4], accepted);
      ASSERT_TRUE(accepted) << where;
    }
    delete_mesh();
  }
  for (const int n : {6, 7, 8}) EXPECT_GE(nb_by_rows[n], 20) << n;
  EXPECT_LE(nb_others, 30) << "rows too far apart are few";
  EXPECT_GE(nb_certain, 500);
  EXPECT_GE(nb_moved, 500);
}

// What the sides say about the gradient. The north is a Neumann side, the west too.
//
//     NW --- N --- NE       f = 2 x + 3 y
//      | \ /   \ /  |       the centres of the four squares are there, so that each corner
//      W -- C -- E          has one neighbour, its centre
//      | / \   / \  |
//     SW --- S --- SE
TEST_F(Derivatives, NeumannSidesZeroTheGradientHandedBack) {
  n_cell_data = 1;
  scenarios::set_domain(0.0, 2.0, 0.0, 2.0);
  double y_max = 0.0;
  init_mesh(
      [](double, double, std::string_view side) {
        return side == "North" || side == "West" ? bc_type_neu : bc_type_dir;
      },
      3, 3, 2, y_max);
  const auto plane = [](double x, double y) { return 2.0 * x + 3.0 * y; };
  for (Cell* c = mesh_beg; c != nullptr; c = c->next) c->data[0] = plane(c->x, c->y);
  double full_dx = 0.0, full_dy = 0.0;
  compute_data_at_node(node_at(0, 2), &full_dx, &full_dy);
  EXPECT_NEAR(full_dx, 2.0, 1e-12) << "a corner with neighbours of its own is not zeroed";
  EXPECT_NEAR(full_dy, 3.0, 1e-12);
  update_mesh_init(scenarios::even_spacing(0.8), plane);
  ASSERT_EQ(nb_nodes, 13);

  const double full = std::sqrt(13.0);
  struct Expected {
    double x, y, dx, dy, norm;
  };
  // A corner takes over the gradient of its centre; next to a Neumann side the difference between
  // that centre and its own first neighbour, the north-eastern one, stands for the component along
  // the side: (2 + 3) / 1.
  for (const Expected& e :
       {Expected{1, 1, 2, 3, full},  //
        Expected{1, 2, 2, 0, full}, Expected{0, 1, 0, 3, full}, Expected{2, 1, 2, 3, full},
        Expected{1, 0, 2, 3, full}, Expected{2, 0, 2, 3, full}, Expected{0, 0, 0, 5, 5},
        Expected{0, 2, 5, 0, 5}, Expected{2, 2, 5, 0, 5}}) {
    Cell* c = node_at(e.x, e.y);
    double dx = -1.0, dy = -1.0;
    compute_data_at_node(c, &dx, &dy);
    const std::string where = "node at " + std::to_string(e.x) + ", " + std::to_string(e.y);
    EXPECT_NEAR(dx, e.dx, 1e-12) << where;
    EXPECT_NEAR(dy, e.dy, 1e-12) << where;
    EXPECT_NEAR(c->grad_data, e.norm, 1e-12) << where;
    EXPECT_NEAR(c->grad2_data, 0.0, 1e-11) << where;
    dx = -1.0;
    compute_data_at_node(c, &dx, nullptr);
    EXPECT_EQ(dx, -1.0) << "written without its companion";
  }
}

// Five nodes tell a quadratic up to one term: the corners of a grid of 2 x 3.
TEST_F(Derivatives, FiveNodesAreEnough) {
  n_cell_data = 1;
  scenarios::set_domain(0.0, 1.0, 0.0, 2.0);
  double y_max = 0.0;
  init_mesh(scenarios::all_dirichlet, 2, 3, 0, y_max);
  for (Cell* c = mesh_beg; c != nullptr; c = c->next) c->data[0] = 2.0 * c->x + c->y * c->y;
  for (const double x : {0.0, 1.0}) {
    for (const double y : {0.0, 2.0}) {
      Cell* c = node_at(x, y);
      double dx = 0.0, dy = 0.0;
      compute_data_at_node(c, &dx, &dy);
      EXPECT_NEAR(dx, 2.0, 1e-12);
      EXPECT_NEAR(dy, 2.0 * y, 1e-12);
      EXPECT_NEAR(c->grad2_data, 2.0, 1e-12);
    }
  }
}

// Values that are no numbers reach the nodes that see them and no other; adaptations that read the
// indicators come to an end.
TEST_F(Derivatives, SurviveValuesThatAreNoNumbers) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const double inf = std::numeric_limits<double>::infinity();
  make_mesh({0, 0, 1}, 0.4, 5, 5, 6, 6, wave);
  Cell* bad = node_at(1.0, 1.0);
  for (const double value : {nan, inf, -inf}) {
    bad->data[0] = value;
    int nb_spoilt = 0;
    for (Cell* c = mesh_beg; c != nullptr; c = c->next) {
      compute_data_at_node(c);
      if (std::isfinite(c->grad_data) && std::isfinite(c->grad2_data)) continue;
      ++nb_spoilt;
      EXPECT_LE(std::hypot(c->x - bad->x, c->y - bad->y), 2.0 * std::sqrt(2.0) * dist_0);
    }
    EXPECT_FALSE(std::isfinite(bad->grad2_data));
    EXPECT_GE(nb_spoilt, 5);
  }
  for (int i = 0; i < 5; ++i) {
    update_mesh_init(
        [](double, double, auto, double g, double h) { return g + h > 3 ? 0.05 : 0.25; },
        [](double x, double y) { return x / (y - y); });
  }
  EXPECT_GE(nb_nodes, 25);
}

// The nodes of a strip one cell wide lie on two lines, and tell no curvature across it.
TEST_F(Derivatives, OfStripsAreThoseOfPlanesOnceTheyAreResolved) {
  detail::Workspace work;
  for (const auto& [nx, ny] : {std::pair(2, 2), std::pair(2, 7), std::pair(9, 2)}) {
    n_cell_data = 1;
    make_grid(nx, ny, 6);
    const auto value = [](double x, double y) { return 3.0 * x - 4.0 * y; };
    const auto refine_at = [](double corner) {
      return [=](double x, double y, auto...) { return 0.2 + 0.3 * std::hypot(x - corner, y); };
    };
    for (const double corner : {1e9, 0.0, 1.0}) {
      for (Cell* c = mesh_beg; c != nullptr; c = c->next) c->data[0] = value(c->x, c->y);
      default_mesh().resolve(refine_at(corner), value);
      for (Cell* c = mesh_beg; c != nullptr; c = c->next) {
        const auto by_rule = [&](Cell* at, double* dx, double* dy) {
          detail::compute_data_at_node_by_rule(detail::default_state(), work, at, dx, dy);
        };
        const auto by_shortcuts = [](Cell* at, double* dx, double* dy) {
          compute_data_at_node(at, dx, dy);
        };
        for (const Indicators& d : {derivatives_at(by_rule, c), derivatives_at(by_shortcuts, c)}) {
          EXPECT_NEAR(d[0], 3.0, 1e-11) << nx << " x " << ny << " at " << c->x << ", " << c->y;
          EXPECT_NEAR(d[1], -4.0, 1e-11);
          EXPECT_NEAR(d[2], 5.0, 1e-11);
          EXPECT_NEAR(d[3], 0.0, 1e-9);
        }
      }
    }
    delete_mesh();
  }
}

TEST_F(Derivatives, EndWhereNothingCanBeDetermined) {
  // What is known of planes goes with the mesh that was resolved.
  n_cell_data = 1;
  make_grid(2, 5, 4);
  default_mesh().resolve([](auto...) { return 0.5; });
  delete_mesh();
  const std::string tag = "(Velmar_2D:) compute_data_at_node: internal error\n             ";
  /// Asks for the derivatives at a node of a grid of squares.
  const auto ask = [](int nx, int ny, double x, double y, std::int32_t id, std::int32_t level) {
    return [=] {
      n_cell_data = 1;
      make_grid(nx, ny, 40);
      Cell* c = node_at(x, y);
      c->id = id;
      c->level = level;
      compute_data_at_node(c);
    };
  };
  const detail::State& state = detail::default_state();
  detail::Workspace work;
  double unused[5];
  bool succ = false, flag = false;
  detail::Stencil list{};
  detail::Candidates rows{};
  const Cell inner;
  const std::pair<std::string, std::function<void()>> cases[] = {
      {tag + "n_list_2 < 6-n_list_1 - 1\n", ask(2, 2, 0, 0, 1, 0)},
      {tag + "list_2_init_offset > n_list_2\n             c%id = 3\n", ask(2, 5, 0, 2, 3, 0)},
      {tag + "list_2_init_offset > n_list_2\n             c%id = 5\n", ask(4, 4, 1, 1, 5, 32)},
      {tag + "list_2_offset = 0\n             c%id = 7\n", ask(4, 4, 1, 0, 7, 32)},
      {tag + "quick_hessian_case = 5 in 'quick_fit_hessian_6pts' !\n",
       [&] { detail::quick_fit_hessian_6pts(state, 5, 0, list, unused[0], unused[1], unused[2]); }},
      {tag + "too few equ in 'fit_hessian_6pts' !\n",
       [&] {
         detail::fit_hessian_6pts(state, work, &inner, list, 5, unused[0], unused[1], unused[2],
                                  unused[3], unused[4], succ);
       }},
      {"(Velmar_2D:) gradient_on_boundary: internal error\n"
       "             cell must be on a boundary!\n",
       [&] { detail::gradient_on_boundary(state.handlers, &inner, succ, flag); }},
      {"(Velmar_2D:) fit_data: internal error\n             too few equations !\n",
       [&] { detail::fit_data(state, rows, 5, 0.0, 0.0, unused[0], 0); }},
  };
  for (const auto& [message, code] : cases) {
    const ChildEnd end = run_in_child(code);
    EXPECT_EQ(end.exit_status, EXIT_FAILURE) << message;
    EXPECT_EQ(end.output, message);
  }
}

}  // namespace
}  // namespace velmar_2d::tests
