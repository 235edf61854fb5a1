#include "stepping.hpp"

#include <algorithm>
#include <cmath>
#include <memory>

namespace velmar_2d::solvers {

void chebyshev_step(const Loops& loops, double radius, double time, double step,
                    std::vector<double>& u, StageValues& room) {
  room.f0.resize(u.size());
  room.y.resize(u.size());
  room.z.resize(u.size());
  const int stages = std::max(2, 1 + static_cast<int>(std::sqrt(1.0 + 1.54 * step * radius)));
  const double s = stages;
  const double w0 = 1.0 + 2.0 / (13.0 * s * s);
  // Chebyshev polynomials and their first two derivatives at w0, by their recurrence.
  const auto n = static_cast<std::size_t>(stages) + 1;
  std::vector<double> t(n), dt(n), ddt(n), b(n);
  t[0] = 1.0, t[1] = w0, dt[1] = 1.0;
  for (std::size_t j = 2; j < n; ++j) {
    t[j] = 2.0 * w0 * t[j - 1] - t[j - 2];
    dt[j] = 2.0 * (t[j - 1] + w0 * dt[j - 1]) - dt[j - 2];
    ddt[j] = 2.0 * (2.0 * dt[j - 1] + w0 * ddt[j - 1]) - ddt[j - 2];
  }
  const double w1 = dt[n - 1] / ddt[n - 1];
  for (std::size_t j = 2; j < n; ++j) b[j] = ddt[j] / (dt[j] * dt[j]);
  b[0] = b[1] = b[2];
  const auto share = [&](std::size_t j) { return j == 1 ? b[1] * w1 : w1 * ddt[j] / dt[j]; };

  loops.begin(b[1] * w1 * step, time + share(1) * step, u, room.f0, room.y);
  std::span<double> y = room.y, z = room.z;
  for (std::size_t j = 2; j < n; ++j) {
    Stage stage;
    stage.last = 2.0 * b[j] * w0 / b[j - 1];
    stage.before = -b[j] / b[j - 2];
    stage.start = 1.0 - stage.last - stage.before;
    stage.rate = 2.0 * b[j] * w1 / b[j - 1] * step;
    stage.first = -(1.0 - b[j - 1] * t[j - 1]) * stage.rate;
    stage.time = time + share(j) * step;
    if (j == 2) std::copy(u.begin(), u.end(), z.begin());  // what was before the first stage
    loops.next(stage, u, room.f0, y, z);
    std::swap(y, z);
  }
  u.swap(y.data() == room.y.data() ? room.y : room.z);
}

void FluxRows::clear() {
  square.clear();
  others.clear();
  begin.assign(1, 0);
  column.clear();
  coefficient.clear();
  known.clear();
  radius = 0.0;
}

void FluxRows::end_row() {
  const auto first = static_cast<std::size_t>(begin.back()), n = column.size() - first;
  const auto here = static_cast<std::int32_t>(square.size());
  double sum = 0.0;
  for (std::size_t i = first; i < column.size(); ++i) sum += 2.0 * std::abs(coefficient[i]);
  radius = std::max(radius, sum);
  Square row{{here, here, here, here}};
  if (n == 4 && std::count(coefficient.end() - 4, coefficient.end(), coefficient.back()) == 4) {
    std::copy(column.end() - 4, column.end(), row.column.begin());
    row.coefficient = coefficient.back();
    column.resize(first);
    coefficient.resize(first);
  } else if (n > 0) {
    others.push_back(here);
    begin.push_back(static_cast<std::int32_t>(column.size()));
  }
  square.push_back(row);
}

void FluxRows::end() {
  for (Square& row : square) {
    const auto alike = [&](std::int32_t j) {
      const auto there = static_cast<std::size_t>(j);
      return there < square.size() && square[there].coefficient == row.coefficient;
    };
    if (row.coefficient > 0.0 && std::all_of(row.column.begin(), row.column.end(), alike)) {
      row.again = 1.0 / 16.0;
      radius = std::max(radius, 12.0 * row.coefficient);
    }
  }
}

namespace {

double sum_around(const FluxRows::Square& row, const double* u, double here) {
  const auto at = [u, &row](std::size_t i) { return u[static_cast<std::size_t>(row.column[i])]; };
  return at(0) + at(1) + at(2) + at(3) - 4.0 * here;
}

/// D Laplacian(u), by two-point fluxes.
void spread(const FluxRows& rows, std::span<const double> u, std::span<double> spread) {
#pragma GCC ivdep
  for (std::size_t i = 0; i < rows.square.size(); ++i) {
    spread[i] = rows.square[i].coefficient * sum_around(rows.square[i], u.data(), u[i]);
  }
  for (std::size_t k = 0; k < rows.others.size(); ++k) {
    const auto i = static_cast<std::size_t>(rows.others[k]);
    for (std::int32_t j = rows.begin[k]; j < rows.begin[k + 1]; ++j) {
      const auto entry = static_cast<std::size_t>(j);
      spread[i] +=
          rows.coefficient[entry] * (u[static_cast<std::size_t>(rows.column[entry])] - u[i]);
    }
  }
}

double rate_at(const FluxRows::Square& row, const Front& front, const double* spread, double own,
               double u) {
  return own - row.again * sum_around(row, spread, own) + front.reaction(u);
}

}  // namespace

void set_known(const FluxRows& rows, const Front& front, double time, std::span<double> u) {
  for (const Known& one : rows.known) {
    u[static_cast<std::size_t>(one.number)] = front.wave(one.x, one.y, time);
  }
}

Loops loops_over(const FluxRows& rows, const Front& front) {
  Loops loops;
  const auto room = std::make_shared<std::vector<double>>();
  loops.begin = [&rows, front, room](double step, double time, std::span<const double> u,
                                     std::span<double> f0, std::span<double> y) {
    room->resize(u.size());
    const double* spreads = room->data();
    spread(rows, u, *room);
    for (std::size_t i = 0; i < rows.square.size(); ++i) {
      f0[i] = rate_at(rows.square[i], front, spreads, spreads[i], u[i]);
      y[i] = u[i] + step * f0[i];
    }
    set_known(rows, front, time, y);
  };
  loops.next = [&rows, front, room](const Stage& stage, std::span<const double> u,
                                    std::span<const double> f0, std::span<const double> y,
                                    std::span<double> z) {
    const Stage s = stage;
    const double* spreads = room->data();
    spread(rows, y, *room);
#pragma GCC ivdep
    for (std::size_t i = 0; i < rows.square.size(); ++i) {
      z[i] = s.start * u[i] + s.last * y[i] + s.before * z[i] + s.first * f0[i] +
             s.rate * rate_at(rows.square[i], front, spreads, spreads[i], y[i]);
    }
    set_known(rows, front, stage.time, z);
  };
  return loops;
}

}  // namespace velmar_2d::solvers
