// Heat conduction on an adaptive mesh, with all three kinds of side condition:
//
//               Neumann: no flux
//            +-------------------+
//     u = 0  |                   |  mixed: what flows out is proportional to u
//            +-------------------+
//               Neumann: no flux
//
// First a solution that is known in closed form decays on meshes that are finer in one half; four
// of them, each twice as fine as the one before, show the order of convergence. Then a hot spot
// moves on a circle, and the mesh follows the second derivatives of the temperature. At every step
// the energy is accounted for: what the source gave, what left through the sides, what the
// interpolation onto the new mesh lost or gained.
//
//     04_heat             pictures go to the folder pictures/
//     04_heat my/folder   pictures go to my/folder/
//
// It prints a table of errors and one of energies, and ends with lines such as
//
//     order of convergence: 2.0
//     largest imbalance of energy in a step: below 1e-12 of what the source gives
//
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "heat_solver.hpp"
#include "log_log_plot.hpp"
#include "pictures.hpp"
#include "scenarios/scenarios.hpp"
#include "velmar_2D/velmar_2D_io.hpp"

namespace {

using velmar_2d::Cell, velmar_2d::Mesh;
namespace scenarios = velmar_2d::scenarios;

constexpr double pi = 3.14159265358979323846;

Mesh make_mesh(int nodes_per_side, int limit) {
  using namespace velmar_2d;
  return Mesh({0.0, 1.0, 0.0, 1.0},
              {.nx = nodes_per_side,
               .subdiv_max = limit,
               .n_cell_data = 1,
               .bc_type = kind_by_side(bc_type_neu, bc_type_oth, bc_type_neu, bc_type_dir)});
}

// ---------------------------------------------------------------------------------------------
// A known solution: exp(-(a^2 + pi^2) t) sin(a x) cos(pi y) meets every side condition if the
// mixed side lets -a / tan(a) times u out.
// ---------------------------------------------------------------------------------------------

constexpr double wave_number = 2.0, end_time = 0.1;

double exact(double x, double y, double time) {
  return std::exp(-(wave_number * wave_number + pi * pi) * time) * std::sin(wave_number * x) *
         std::cos(pi * y);
}

/// Root of the area-weighted mean square of the error.
double error_on_grid(int intervals) {
  Mesh mesh = make_mesh(intervals + 1, 2);
  mesh.resolve(scenarios::jumping_spacing(0.5, 0.5 * mesh.dist_0(), mesh.dist_0()));
  for (Cell& c : mesh.nodes()) c.data[0] = exact(c.x, c.y, 0);

  HeatSolver solver(mesh, {1.0, -wave_number / std::tan(wave_number)});
  const double step = end_time / intervals;
  solver.prepare(step, 0.5);
  for (int i = 0; i < intervals; ++i) solver.advance(i * step);
  solver.store();

  double sum = 0.0;
  for (Cell& c : mesh.nodes()) {
    const double error = c.data[0] - exact(c.x, c.y, end_time);
    sum += mesh.area(c) * error * error;
  }
  return std::sqrt(sum);
}

std::string draw_errors(const std::string& path, const std::vector<LogLogPlot::Point>& errors) {
  LogLogPlot plot("Heat: errors against a known solution", "spacing of the coarse half", "error");
  const LogLogPlot::Point coarse = errors.front(), fine = errors.back();
  for (const int order : {1, 2}) {
    const double error = coarse.y * std::pow(fine.x / coarse.x, order);
    plot.add({"order " + std::to_string(order), {0.6, 0.6, 0.65}, true, {coarse, {fine.x, error}}});
  }
  plot.add({"observed", {0.15, 0.35, 0.6}, false, errors});
  return plot.draw(path);
}

// ---------------------------------------------------------------------------------------------
// A hot spot on a circle
// ---------------------------------------------------------------------------------------------

constexpr double spot_radius = 0.03;
constexpr int nb_steps = 60, steps_per_picture = 20;

double hot_spot(double x, double y, double time) {
  const double from_x = x - (0.5 + 0.33 * std::cos(2.0 * pi * time));
  const double from_y = y - (0.5 + 0.33 * std::sin(2.0 * pi * time));
  return 40.0 * std::exp(-(from_x * from_x + from_y * from_y) / (spot_radius * spot_radius));
}

/// Spacing at which linear interpolation errs by about `tolerance`.
double spacing_for(double tolerance, double second_derivative) {
  return std::sqrt(8.0 * tolerance / std::max(second_derivative, 1e-12));
}

/// Largest imbalance of a step as a share of what the source gives.
double follow_hot_spot(const std::filesystem::path& folder) {
  Mesh mesh = make_mesh(33, 8);
  const double finest = mesh.dist_0() / 16.0;
  const auto spacing = [=](double, double, std::span<const double>, double, double grad2_data) {
    return std::max(spacing_for(2e-3, grad2_data), finest);
  };
  HeatSolver solver(mesh, {0.02, 0.2, hot_spot});
  double energy = 0.0, source = 0.0, sides = 0.0, transfer = 0.0, worst = 0.0;
  std::printf("\n                        energy                since the start\n");
  std::printf(" step    nodes      now   =  from source  + from sides + interpolation\n");
  for (int i = 0; i < nb_steps; ++i) {
    mesh.resolve(spacing, {.margin = 0.5});
    constexpr double step = 1.0 / nb_steps;
    solver.prepare(step, 1.0);
    transfer += solver.energy() - energy;
    const EnergyBalance balance = solver.advance(i * step);
    energy = solver.energy();
    solver.store();
    source += balance.source;
    sides += balance.through_sides;
    worst = std::max(worst, std::abs(balance.imbalance() / balance.source));
    if ((i + 1) % 5 == 0) {
      std::printf("%5d %8lld %11.6f   %11.6f   %11.6f   %11.6f\n", i + 1,
                  static_cast<long long>(mesh.size()), energy, source, sides, transfer);
    }
    if ((i + 1) % steps_per_picture != 0) continue;
    velmar_2d::io::PictureOptions options;
    options.title = "Heat: a hot spot on a circle, step " + std::to_string(i + 1);
    options.cells = velmar_2d::io::CellColour::value;
    options.links = options.nodes = false;
    const auto path = folder / ("04_heat_" + std::to_string(i + 1) + ".png");
    require(velmar_2d::io::draw_mesh(mesh, path.string(), options));
  }
  return worst;
}

}  // namespace

int main(int argc, char** argv) {
  const std::filesystem::path folder = picture_folder(argc, argv);

  std::vector<LogLogPlot::Point> errors;
  double order = 0.0;
  for (const int intervals : {8, 16, 32, 64}) {
    errors.push_back({1.0 / intervals, error_on_grid(intervals)});
    const std::size_t n = errors.size();
    std::printf("%2d intervals: error %.3e", intervals, errors[n - 1].y);
    if (n > 1) {
      order = std::log2(errors[n - 2].y / errors[n - 1].y);
      std::printf(", order %.2f", order);
    }
    std::printf("\n");
  }
  require(draw_errors((folder / "04_heat_orders.svg").string(), errors));
  const double imbalance = follow_hot_spot(folder);
  std::printf("order of convergence: %.1f\n", order);
  std::printf("largest imbalance of energy in a step: %s 1e-12 of what the source gives\n",
              imbalance < 1e-12 ? "below" : "above");
}
