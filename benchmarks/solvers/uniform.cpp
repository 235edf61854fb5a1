// The same scheme on a uniform grid of the finest spacing, as one would write it for nothing else:
// no links, no operator, loops over rows that the compiler turns into vector instructions.
#include "stepping.hpp"

namespace {

using namespace velmar_2d::solvers;

struct UniformGrid {
  std::size_t nx = 0, ny = 0;  ///< points, those of the sides included
  double spacing = 0.0;
};

void set_sides(const UniformGrid& grid, const Front& front, double time, std::span<double> u) {
  const auto set = [&](std::size_t i, std::size_t j) {
    u[j * grid.nx + i] = front.wave(static_cast<double>(i) * grid.spacing,
                                    static_cast<double>(j) * grid.spacing, time);
  };
  for (std::size_t i = 0; i < grid.nx; ++i) set(i, 0), set(i, grid.ny - 1);
  for (std::size_t j = 0; j < grid.ny; ++j) set(0, j), set(grid.nx - 1, j);
}

Loops loops_over(const UniformGrid& grid, const Front& front) {
  const double c = front.D / (grid.spacing * grid.spacing), k = front.k, a = front.a;
  const std::size_t nx = grid.nx;
  const auto rate = [=](const double* u) {
    return c * (u[1] + *(u - 1) + u[nx] + *(u - nx) - 4.0 * *u) + k * *u * (1.0 - *u) * (*u - a);
  };
  Loops loops;
  loops.begin = [=, &front](double step, double time, std::span<const double> from,
                            std::span<double> first, std::span<double> to) {
    for (std::size_t j = 1; j + 1 < grid.ny; ++j) {
      const double* u = from.data() + j * nx;
      double *f0 = first.data() + j * nx, *y = to.data() + j * nx;
#pragma GCC ivdep
      for (std::size_t i = 1; i < nx - 1; ++i) {
        f0[i] = rate(u + i);
        y[i] = u[i] + step * f0[i];
      }
    }
    set_sides(grid, front, time, to);
  };
  loops.next = [=, &front](const Stage& stage, std::span<const double> from,
                           std::span<const double> first, std::span<const double> last,
                           std::span<double> to) {
    const Stage s = stage;
    for (std::size_t j = 1; j + 1 < grid.ny; ++j) {
      const double *u = from.data() + j * nx, *f0 = first.data() + j * nx;
      const double* y = last.data() + j * nx;
      double* z = to.data() + j * nx;
#pragma GCC ivdep
      for (std::size_t i = 1; i < nx - 1; ++i) {
        z[i] = s.start * u[i] + s.last * y[i] + s.before * z[i] + s.rate * rate(y + i) +
               s.first * f0[i];
      }
    }
    set_sides(grid, front, s.time, to);
  };
  return loops;
}

}  // namespace

int main(int argc, char** argv) {
  const Case run = case_of_arguments(argc, argv);
  const Front& front = run.front;
  const UniformGrid grid{static_cast<std::size_t>(run.cells) + 1,
                         static_cast<std::size_t>(std::lround(run.cells * front.height)) + 1,
                         run.finest()};
  std::vector<double> u(grid.nx * grid.ny);
  const auto at_all = [&](const auto& use) {
    for (std::size_t j = 0; j < grid.ny; ++j) {
      for (std::size_t i = 0; i < grid.nx; ++i) {
        use(u[j * grid.nx + i], static_cast<double>(i) * grid.spacing,
            static_cast<double>(j) * grid.spacing);
      }
    }
  };
  at_all([&](double& value, double x, double y) { value = front.wave(x, y, 0.0); });

  const Clock clock;
  const Loops loops = loops_over(grid, front);
  StageValues room;
  const double radius = 8.0 * front.D / (grid.spacing * grid.spacing);
  const int steps = run.steps();
  int taken = 0;
  while (taken < steps && (run.patience <= 0.0 || clock.seconds() < run.patience)) {
    chebyshev_step(loops, radius, taken * run.time_step(), run.time_step(), u, room);
    ++taken;
  }

  Outcome outcome;
  outcome.share = static_cast<double>(taken) / steps;
  outcome.seconds = clock.seconds() / outcome.share;
  outcome.processor_seconds = clock.processor_seconds() / outcome.share;
  outcome.cells = static_cast<std::int64_t>(u.size());
  at_all([&](double value, double x, double y) {
    const double wide = x > 0.0 && x < 1.0 ? 1.0 : 0.5;
    const double high = y > 0.0 && y < front.height ? 1.0 : 0.5;
    outcome.errors.add(wide * high * grid.spacing * grid.spacing,
                       value - front.wave(x, y, Front::duration));
  });
  if (taken < steps) outcome.errors = {NAN, NAN};
  print(run, outcome);
  if (!run.picture.empty()) {
    Picture picture(run);
    at_all(
        [&](double value, double x, double y) { picture.add_square(value, x, y, grid.spacing); });
  }
  return 0;
}
