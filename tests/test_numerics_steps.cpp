// Steps in time, each against what it should be: the order that is promised, and how far it is
// stable.
#include "support/numerics.hpp"

namespace velmar_2d::numerics {
namespace {

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
