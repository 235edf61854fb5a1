// The problem that every side solves, and how it says what came of it.
//
//     u_t = D Laplacian(u) + k u (1 - u) (u - a)     in a strip that is 1 long
//     u = 1 / (1 + exp((n.x - start - t) / length))  at first, on all sides, and for ever
//
// The front stands obliquely in the strip and runs along n at the speed 1, for a third of the
// strip's length.
#pragma once

#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <span>
#include <string>

namespace velmar_2d::solvers {

struct Front {
  int parts = 50;       ///< the front is 1/parts wide: what its steepest tangent takes from 1 to 0
  double height = 0.0;  ///< of the strip
  double length = 0.0;  ///< in which the wave falls by e; a quarter of the width
  double D = 0.0, k = 0.0, a = 0.1;

  static constexpr double duration = 1.0 / 3.0;
  static constexpr double start = 0.3, n_x = 0.90630778703665, n_y = 0.42261826174070;

  double wave(double x, double y, double time) const {
    return 1.0 / (1.0 + std::exp((n_x * x + n_y * y - start - time) / length));
  }
  double reaction(double u) const { return k * u * (1.0 - u) * (u - a); }
  double slope_of_reaction(double u) const {
    return k * ((2.0 - 3.0 * u) * u + a * (2.0 * u - 1.0));
  }
};

/// Thinner fronts have lower strips, since whatever is done away from the front is the same.
Front front_of_parts(int parts);

/// What a run is told.
struct Case {
  std::string side;
  Front front;
  int cells = 0;       ///< finest cells along the strip
  double step = 1.0;   ///< time step: finest spacings that the front moves in one
  double every = 2.0;  ///< lengths that the front moves between two adaptations
  double reach = 7.0;  ///< see rim()
  int sums = 2;        ///< 1: two-point fluxes alone, see FluxRows
  double patience =
      0.0;  ///< seconds after which a uniform grid stops, and its times are scaled; 0: never
  std::string picture;  ///< path that receives the cells at the end, or nothing

  double finest() const { return 1.0 / cells; }
  /// A whole number of steps that ends on time.
  int steps() const;
  double time_step() const { return Front::duration / steps(); }
  /// Between two adaptations.
  int steps_between() const;
  /// Lengths from the front's middle to where spacings begin to grow: `reach` for five cells within
  /// the front's width, and for more of them so much farther that what is left there falls with the
  /// square of the spacing.
  double rim() const { return reach + 2.0 * std::log(cells / (5.0 * front.parts)); }
  /// Squares along the strip that a mesh begins with: as few as so many rows of them allow, the
  /// finest cells being halves of halves of them.
  int coarsest(int rows) const;
  /// Spacing at first, when it is known where the front is.
  double first_spacing(double x, double y) const {
    const double away = std::abs(Front::n_x * x + Front::n_y * y - Front::start);
    return finest() + 0.4 * std::fmax(0.0, away - rim() * front.length);
  }
  /// Spacing where the norms of gradient and Hessian are these. The gradient stands in for the
  /// Hessian in the front's middle, where that vanishes.
  double spacing(double gradient, double hessian) const {
    const double curvature = hessian + gradient / front.length;
    return finest() * std::sqrt(std::fmax(
                          1.0, 2.0 * std::exp(-rim()) / (front.length * front.length * curvature)));
  }
};

/// SIDE PARTS CELLS [step=X] [every=X] [reach=X] [sums=1] [patience=X] [picture=PATH]; ends the
/// program where it is wrong.
Case case_of_arguments(int argc, char** argv);

/// Difference to the wave at the end, by control cells.
struct Errors {
  double largest = 0.0, squares = 0.0;

  void add(double area, double difference) {
    largest = std::fmax(largest, std::abs(difference));
    squares += area * difference * difference;
  }
};

struct Outcome {
  Errors errors;
  std::int64_t cells = 0;          ///< mean over the steps: nodes, cells or unknowns
  double seconds = 0.0;            ///< all of it, but for the initial mesh
  double processor_seconds = 0.0;  ///< of these
  double adapting = 0.0;           ///< of the processor's: adaptation, transfer, new operator
  double share = 1.0;              ///< of the steps that were taken; the times are those of all
};

/// Of this process so far.
double processor_seconds();
/// Prints one line of results; memory is what the process has used beyond what it began with.
void print(const Case& run, const Outcome& outcome);

/// Writes those cells that reach into a window where the front is at the end, for the program that
/// draws them: the x of the window's sides, then a line `u x y x y ...` for each.
class Picture {
 public:
  explicit Picture(const Case& run);
  ~Picture();
  Picture(const Picture&) = delete;
  Picture& operator=(const Picture&) = delete;
  void add(double value, std::span<const std::array<double, 2>> corners);
  void add_square(double value, double x, double y, double side);

 private:
  double low_, high_;  ///< of x
  std::FILE* file_;
};

class Clock {
 public:
  Clock();
  double seconds() const;
  double processor_seconds() const;

 private:
  double wall_, processor_;
};

}  // namespace velmar_2d::solvers
