// The same scheme on a uniform grid of the finest spacing, as one would write it for nothing else:
// no links, no operator, loops over rows that the compiler turns into vector instructions.
#include <memory>

#include "stepping.hpp"

namespace {

using namespace velmar_2d::solvers;

struct UniformGrid {
  std::size_t nx = 0, ny = 0;  ///< points, those of the sides included
  double spacing = 0.0;
};

double sum_around(const UniformGrid& grid, const double* u) {
  return u[1] + *(u - 1) + u[grid.nx] + *(u - grid.nx) - 4.0 * *u;
}

void set_sides(const UniformGrid& grid, const Front& front, double time, std::span<double> u) {
  const auto set = [&](std::size_t i, std::size_t j) {
    u[j * grid.nx + i] = front.wave(static_cast<double>(i) * grid.spacing,
                                    static_cast<double>(j) * grid.spacing, time);
  };
  for (std::size_t i = 0; i < grid.nx; ++i) set(i, 0), set(i, grid.ny - 1);
  for (std::size_t j = 0; j < grid.ny; ++j) set(0, j), set(grid.nx - 1, j);
}

/// spread becomes D Laplacian(u) at inner points.
void spread(const UniformGrid& grid, double c, const double* u, double* spread) {
  for (std::size_t j = 1; j + 1 < grid.ny; ++j) {
    const double* at = u + j * grid.nx;
    double* to = spread + j * grid.nx;
#pragma GCC ivdep
    for (std::size_t i = 1; i < grid.nx - 1; ++i) to[i] = c * sum_around(grid, at + i);
  }
}

/// The sum is taken twice away from the sides, as in FluxRows. On the sides `spread` is 0 and not
/// used.
template <typename Use>
void for_inner(const UniformGrid& grid, const double* spread, const Use& use) {
  for (std::size_t j = 1; j + 1 < grid.ny; ++j) {
    const double* at = spread + j * grid.nx;
    const double again = j > 1 && j + 2 < grid.ny ? 1.0 / 16.0 : 0.0;
    use(j * grid.nx + 1, at[1]);
#pragma GCC ivdep
    for (std::size_t i = 2; i < grid.nx - 2; ++i) {
      use(j * grid.nx + i, at[i] - again * sum_around(grid, at + i));
    }
    use(j * grid.nx + grid.nx - 2, at[grid.nx - 2]);
  }
}

Loops loops_over(const UniformGrid& grid, const Front& front) {
  const double c = front.D / (grid.spacing * grid.spacing);
  const auto room = std::make_shared<std::vector<double>>(grid.nx * grid.ny);
  Loops loops;
  loops.begin = [=](double step, double time, std::span<const double> u, std::span<double> f0,
                    std::span<double> y) {
    spread(grid, c, u.data(), room->data());
    for_inner(grid, room->data(), [&](std::size_t i, double diffusion) {
      f0[i] = diffusion + front.reaction(u[i]);
      y[i] = u[i] + step * f0[i];
    });
    set_sides(grid, front, time, y);
  };
  loops.next = [=](const Stage& stage, std::span<const double> u_all,
                   std::span<const double> f0_all, std::span<const double> y_all,
                   std::span<double> z_all) {
    const Stage s = stage;
    const double *u = u_all.data(), *f0 = f0_all.data(), *y = y_all.data();
    double* z = z_all.data();
    spread(grid, c, y, room->data());
    for_inner(grid, room->data(), [=](std::size_t i, double diffusion) {
      z[i] = s.start * u[i] + s.last * y[i] + s.before * z[i] + s.first * f0[i] +
             s.rate * (diffusion + front.reaction(y[i]));
    });
    set_sides(grid, front, s.time, z_all);
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
  const double radius = 12.0 * front.D / (grid.spacing * grid.spacing) + front.k;
  const int steps = run.steps();
  int taken = 0;
  while (taken < steps && (run.patience <= 0.0 || clock.processor_seconds() < run.patience)) {
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
