// Steps in time. Implicit ones solve for changes: rows and columns of nodes whose values are given
// are then empty but for the diagonal, and what those nodes do to others is in the right side.
#include <algorithm>
#include <cmath>
#include <string>

#include "numerics.hpp"

namespace velmar_2d::numerics {

namespace {

using detail::index, detail::require_size;

std::span<double> room(Work& work, std::size_t which, std::size_t n) {
  work.values[which].assign(n, 0.0);
  return work.values[which];
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Explicit steps
// ---------------------------------------------------------------------------------------------

namespace {

struct EulerStep {
  std::span<double> rate_after, after;
};

/// What both methods begin with: a step of Euler's, and the rate at its end.
EulerStep euler_step(double time, double step, const rate_function& rate, std::span<const double> u,
                     Work& work) {
  const std::size_t n = u.size();
  const std::span<double> change = room(work, 0, n), next = room(work, 1, n);
  rate(time, u, change);
  for (std::size_t i = 0; i < n; ++i) next[i] = u[i] + step * change[i];
  rate(time + step, next, change);
  return {change, next};
}

}  // namespace

void heun_step(double time, double step, const rate_function& rate, std::span<double> u,
               Work& work) {
  const std::size_t n = u.size();
  const auto [change, next] = euler_step(time, step, rate, u, work);
  for (std::size_t i = 0; i < n; ++i) u[i] = 0.5 * (u[i] + (next[i] + step * change[i]));
}

// Shu and Osher's form.
void runge_kutta_step(double time, double step, const rate_function& rate, std::span<double> u,
                      Work& work) {
  const std::size_t n = u.size();
  const auto [change, next] = euler_step(time, step, rate, u, work);
  for (std::size_t i = 0; i < n; ++i) next[i] = 0.75 * u[i] + 0.25 * (next[i] + step * change[i]);
  rate(time + 0.5 * step, next, change);
  for (std::size_t i = 0; i < n; ++i) {
    u[i] = (u[i] + 2.0 * (next[i] + step * change[i])) / 3.0;
  }
}

// Meyer, Balsara and Aslam, J. Comput. Phys. 257 (2014) 594, section 2.
void stabilised_step(double time, double step, std::int32_t stages, const rate_function& rate,
                     std::span<double> u, Work& work) {
  if (stages < 3) {
    throw Error("(velmar_2D/numerics:) ERROR: a stabilised step has 3 stages at least, not " +
                std::to_string(stages));
  }
  const std::size_t n = u.size();
  const std::span<double> first_rate = room(work, 0, n), change = room(work, 1, n);
  std::span<double> before = room(work, 2, n), now = room(work, 3, n), next = room(work, 4, n);
  const auto b = [](double j) {
    return j < 3.0 ? 1.0 / 3.0 : (j * j + j - 2.0) / (2.0 * j * (j + 1.0));
  };
  const double s = stages, w = 4.0 / (s * s + s - 2.0);
  rate(time, u, first_rate);
  double time_before = 0.0, time_now = w / 3.0;
  for (std::size_t i = 0; i < n; ++i) {
    before[i] = u[i];
    now[i] = u[i] + step * time_now * first_rate[i];
  }
  for (double j = 2.0; j <= s; ++j) {
    const double mu = (2.0 * j - 1.0) / j * b(j) / b(j - 1.0);
    const double nu = -(j - 1.0) / j * b(j) / b(j - 2.0);
    const double of_rate = mu * w, of_first = -(1.0 - b(j - 1.0)) * of_rate;
    rate(time + step * time_now, now, change);
    for (std::size_t i = 0; i < n; ++i) {
      next[i] = mu * now[i] + nu * before[i] + (1.0 - mu - nu) * u[i] +
                step * (of_rate * change[i] + of_first * first_rate[i]);
    }
    const double time_next = mu * time_now + nu * time_before + of_rate + of_first;
    time_before = time_now, time_now = time_next;
    std::swap(before, now);
    std::swap(now, next);
  }
  std::copy(now.begin(), now.end(), u.begin());
}

std::int32_t stages_for(double step, double euler) {
  // The least s with s^2 + s - 2 >= 4 step / euler.
  const double s = std::ceil(0.5 * (std::sqrt(9.0 + 16.0 * step / euler) - 1.0) - 1e-12);
  return std::max(3, static_cast<std::int32_t>(s) | 1);
}

void balance_rate(const Balance& balance, std::span<const double> u, std::span<double> rate) {
  multiply(balance.flux, u, rate);
  require_size("areas", balance.areas.size(), rate.size());
  for (std::size_t i = 0; i < rate.size(); ++i) rate[i] /= -balance.areas[i];
  for (std::size_t i = 0; i < balance.known.size(); ++i) {
    if (balance.known[i] != 0) rate[i] = 0.0;
  }
}

double stable_step(const SparseMatrix& flux, std::span<const double> areas) {
  require_size("areas", areas.size(), flux.diagonal.size());
  double fastest = 0.0;
  for (std::size_t i = 0; i < areas.size(); ++i) {
    fastest = std::max(fastest, flux.values[index(flux.diagonal[i])] / areas[i]);
  }
  return 1.0 / fastest;
}

// ---------------------------------------------------------------------------------------------
// Implicit steps
// ---------------------------------------------------------------------------------------------

namespace {

void require_sizes(const Balance& balance, std::span<const double> u,
                   std::span<const double> known_after) {
  const std::size_t n = balance.flux.diagonal.size();
  require_size("areas", balance.areas.size(), n);
  require_size("values", u.size(), n);
  if (!balance.known.empty()) require_size("marks of known nodes", balance.known.size(), n);
  if (!known_after.empty()) require_size("values of known nodes", known_after.size(), n);
}

bool is_known(const Balance& balance, std::size_t i) {
  return !balance.known.empty() && balance.known[i] != 0;
}

/// factor * area - slope * area + K, unless it is that already.
void make_matrix(const Balance& balance, double factor, std::span<const double> slope, Work& work) {
  const SparseMatrix& flux = balance.flux;
  SparseMatrix& matrix = work.matrix;
  const bool no_slope = std::all_of(slope.begin(), slope.end(), [](double s) { return s == 0.0; });
  if (no_slope) slope = {};
  if (work.made_from == flux.version && work.factor == factor && matrix.version != 0 &&
      std::ranges::equal(work.areas, balance.areas) && std::ranges::equal(work.slope, slope) &&
      std::ranges::equal(work.known, balance.known)) {
    return;
  }
  if (matrix.pattern != flux.pattern) {
    matrix.row_begin = flux.row_begin;
    matrix.columns = flux.columns;
    matrix.diagonal = flux.diagonal;
    matrix.pattern = flux.pattern;
  }
  matrix.values = flux.values;
  for (std::size_t i = 0; i < balance.areas.size(); ++i) {
    double& own = matrix.values[index(matrix.diagonal[i])];
    own += (slope.empty() ? factor : factor - slope[i]) * balance.areas[i];
    if (!is_known(balance, i)) continue;
    // The matrix is symmetric in its places: those of column i are in the rows of its columns.
    for (std::int32_t k = matrix.row_begin[i]; k < matrix.row_begin[i + 1]; ++k) {
      const std::int32_t j = matrix.columns[index(k)];
      if (index(j) == i) continue;
      matrix.values[index(k)] = 0.0;
      const auto row = matrix.columns.begin() + matrix.row_begin[index(j)];
      const auto end = matrix.columns.begin() + matrix.row_begin[index(j) + 1];
      const auto place = std::lower_bound(row, end, static_cast<std::int32_t>(i));
      matrix.values[static_cast<std::size_t>(place - matrix.columns.begin())] = 0.0;
    }
  }
  work.made_from = flux.version;
  work.factor = factor;
  work.areas.assign(balance.areas.begin(), balance.areas.end());
  work.slope.assign(slope.begin(), slope.end());
  work.known.assign(balance.known.begin(), balance.known.end());
  touch(matrix);
}

/// change = matrix^-1 right, where known nodes do not change.
void solve_for_change(const Balance& balance, std::span<double> right, std::span<double> change,
                      const solve_function& solve, const Work& work) {
  for (std::size_t i = 0; i < balance.known.size(); ++i) {
    if (balance.known[i] != 0) right[i] = 0.0;
  }
  std::fill(change.begin(), change.end(), 0.0);
  solve(work.matrix, right, change);
}

/// Known nodes on their way from what they are to what they will be.
void lead_known(const Balance& balance, std::span<const double> before,
                std::span<const double> after, double share, std::span<double> u) {
  if (after.empty()) return;
  for (std::size_t i = 0; i < balance.known.size(); ++i) {
    if (balance.known[i] != 0) u[i] = before[i] + share * (after[i] - before[i]);
  }
}

/// right += share * (source - K u)
class Residual {
 public:
  Residual(const Balance& balance, const source_function& source, Work& work)
      : balance_(balance),
        source_(source),
        product_(room(work, 2, balance.areas.size())),
        of_source_(room(work, 3, balance.areas.size())) {}

  void add(double time, std::span<const double> u, std::span<double> right) {
    multiply(balance_.flux, u, product_);
    if (source_) {
      std::fill(of_source_.begin(), of_source_.end(), 0.0);
      source_(time, of_source_);
    }
    for (std::size_t i = 0; i < right.size(); ++i) right[i] += of_source_[i] - product_[i];
  }

 private:
  const Balance& balance_;
  const source_function& source_;
  std::span<double> product_, of_source_;
};

}  // namespace

void implicit_step(Scheme scheme, const Balance& balance, double time, double step,
                   const source_function& source, std::span<double> u, const solve_function& solve,
                   Work& work, std::span<const double> known_after) {
  require_sizes(balance, u, known_after);
  const std::size_t n = u.size();
  const std::span<double> right = room(work, 0, n), change = room(work, 1, n),
                          before = room(work, 4, n);
  Residual residual(balance, source, work);
  std::copy(u.begin(), u.end(), before.begin());
  if (scheme == Scheme::backward_euler) {
    make_matrix(balance, 1.0 / step, {}, work);
    lead_known(balance, before, known_after, 1.0, u);
    residual.add(time + step, u, right);
    solve_for_change(balance, right, change, solve, work);
    for (std::size_t i = 0; i < n; ++i) u[i] += change[i];
    return;
  }
  // The trapezoidal rule, over the whole step or its first part.
  static const double first_part = 2.0 - std::sqrt(2.0);
  const double part = scheme == Scheme::crank_nicolson ? 1.0 : first_part;
  make_matrix(balance, 2.0 / (part * step), {}, work);
  residual.add(time, u, right);
  lead_known(balance, before, known_after, part, u);
  residual.add(time + part * step, u, right);
  solve_for_change(balance, right, change, solve, work);
  for (std::size_t i = 0; i < n; ++i) u[i] += change[i];
  if (scheme == Scheme::crank_nicolson) return;
  // Then the backward differences of second order, whose matrix is the same.
  const double of_before = (1.0 - part) * (1.0 - part), of_both = part * (2.0 - part);
  for (std::size_t i = 0; i < n; ++i) {
    if (!is_known(balance, i)) u[i] = (u[i] - of_before * before[i]) / of_both;
  }
  lead_known(balance, before, known_after, 1.0, u);
  std::fill(right.begin(), right.end(), 0.0);
  residual.add(time + step, u, right);
  solve_for_change(balance, right, change, solve, work);
  for (std::size_t i = 0; i < n; ++i) u[i] += change[i];
}

// Verwer, Spee, Blom and Hundsdorfer, SIAM J. Sci. Comput. 20 (1999) 1456: of second order with any
// matrix.
void rosenbrock_step(const Balance& balance, double time, double step,
                     const reaction_function& reaction, std::span<double> u,
                     const solve_function& solve, Work& work, std::span<const double> known_after) {
  require_sizes(balance, u, known_after);
  const std::size_t n = u.size();
  static const double gamma = 1.0 - std::sqrt(0.5);
  const std::span<double> right = room(work, 0, n), first = room(work, 1, n),
                          product = room(work, 2, n), rate = room(work, 3, n),
                          slope = room(work, 4, n), state = room(work, 5, n);
  if (!known_after.empty()) {  // what known nodes change, in `state` for a moment
    for (std::size_t i = 0; i < n; ++i) {
      if (is_known(balance, i)) state[i] = known_after[i] - u[i];
    }
    multiply(balance.flux, state, right);
    for (double& r : right) r = -r;
  }
  reaction(time, u, rate, slope);
  make_matrix(balance, 1.0 / (gamma * step), slope, work);
  multiply(balance.flux, u, product);
  for (std::size_t i = 0; i < n; ++i) {
    right[i] += (balance.areas[i] * rate[i] - product[i]) / gamma;
  }
  solve_for_change(balance, right, first, solve, work);
  for (std::size_t i = 0; i < n; ++i) {
    if (!known_after.empty() && is_known(balance, i)) first[i] = known_after[i] - u[i];
    state[i] = u[i] + first[i];
  }
  std::fill(rate.begin(), rate.end(), 0.0);
  std::fill(slope.begin(), slope.end(), 0.0);
  reaction(time + step, state, rate, slope);
  multiply(balance.flux, state, product);
  for (std::size_t i = 0; i < n; ++i) {
    right[i] = (balance.areas[i] * (rate[i] - 2.0 * first[i] / step) - product[i]) / gamma;
  }
  if (!known_after.empty()) {
    for (std::size_t i = 0; i < n; ++i) slope[i] = is_known(balance, i) ? first[i] : 0.0;
    multiply(balance.flux, slope, product);
    for (std::size_t i = 0; i < n; ++i) right[i] += product[i];
  }
  const std::span<double> second = rate;
  solve_for_change(balance, right, second, solve, work);
  for (std::size_t i = 0; i < n; ++i) {
    if (is_known(balance, i)) {
      u[i] = state[i];
    } else {
      u[i] += 1.5 * first[i] + 0.5 * second[i];
    }
  }
}

void steady_state(const Balance& balance, std::span<const double> source, std::span<double> u,
                  const solve_function& solve, Work& work) {
  require_sizes(balance, u, {});
  require_size("sources", source.size(), u.size());
  const std::size_t n = u.size();
  const std::span<double> right = room(work, 0, n), change = room(work, 1, n);
  make_matrix(balance, 0.0, {}, work);
  multiply(balance.flux, u, right);
  for (std::size_t i = 0; i < n; ++i) right[i] = source[i] - right[i];
  solve_for_change(balance, right, change, solve, work);
  for (std::size_t i = 0; i < n; ++i) u[i] += change[i];
}

}  // namespace velmar_2d::numerics
