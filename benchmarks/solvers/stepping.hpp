// Time steps of the finite-volume sides: Runge-Kutta-Chebyshev of second order (Sommeijer, Shampine
// and Verwer 1997), whose stable step grows with the square of its number of stages.
#pragma once

#include <algorithm>
#include <array>
#include <functional>
#include <span>
#include <vector>

#include "problem.hpp"

namespace velmar_2d::solvers {

/// z becomes start u + last y + before z + rate f(y) + first f0.
struct Stage {
  double start = 0.0, last = 0.0, before = 0.0, rate = 0.0, first = 0.0;
  double time = 0.0;  ///< of z
};

/// The loops over the unknowns that a step consists of.
struct Loops {
  /// f0 becomes f(u), and y becomes u + step f0; `time` is that of y.
  std::function<void(double step, double time, std::span<const double> u, std::span<double> f0,
                     std::span<double> y)>
      begin;
  std::function<void(const Stage& stage, std::span<const double> u, std::span<const double> f0,
                     std::span<const double> y, std::span<double> z)>
      next;
};

/// Room for the stages; grows with the unknowns and is kept from step to step.
struct StageValues {
  std::vector<double> f0, y, z;
};

/// Advances u by one step; `radius` bounds the eigenvalues of the rate's derivative.
void chebyshev_step(const Loops& loops, double radius, double time, double step,
                    std::vector<double>& u, StageValues& room);

/// A value that the wave prescribes.
struct Known {
  std::int32_t number = 0;
  double x = 0.0, y = 0.0;
};

/// Two-point fluxes: the rate of i is the sum of coefficient x (u_column - u_i), and the reaction.
/// Rows of known values are empty.
///
/// Most rows have four entries that are equal; they lie in `square`, so that a loop over all needs
/// neither branches nor lengths. Those of the others are in `begin`, `column` and `coefficient`,
/// and are added to what a first loop finds.
///
/// Where the cells around a cell are squares like itself the flux is exact but for
/// h^2 / 12 (u_xxxx + u_yyyy). The part of that which is the same in all directions,
/// h^2 / 16 times the Laplacian of the Laplacian, is taken off: the sums are summed again.
struct FluxRows {
  struct Square {
    std::array<std::int32_t, 4> column{};
    double coefficient = 0.0, again = 0.0;  ///< again: 1/16 where all around is alike
  };
  std::vector<Square> square;
  std::vector<std::int32_t> others, begin, column;
  std::vector<double> coefficient;
  std::vector<Known> known;
  double radius = 0.0;  ///< bounds the eigenvalues

  void clear();
  void add(std::int32_t to, double value) {
    column.push_back(to);
    coefficient.push_back(value);
  }
  void end_row();
  /// A whole row of four entries that are equal.
  void add_square(const std::array<std::int32_t, 4>& columns, double value) {
    radius = std::max(radius, 8.0 * value);
    square.push_back({columns, value});
  }
  /// To be called after the last row.
  void end();
};

void set_known(const FluxRows& rows, const Front& front, double time, std::span<double> u);
Loops loops_over(const FluxRows& rows, const Front& front);

}  // namespace velmar_2d::solvers
