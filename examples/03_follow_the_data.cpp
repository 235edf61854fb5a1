// A mesh that follows its data: no formula tells it where the front is.
//
// A steep front, f = tanh(distance to a moving curve / width), crosses the unit square in 100
// steps. The wanted spacing is computed from the gradient and Hessian norms of the data alone: a
// chord over one spacing may miss the data by no more than a given error, f'' h^2 / 8. After each
// step the exact profile is sampled again at the nodes, as a solver would leave its solution there.
//
// The run is made twice: with new values taken from the profile (update_mesh_init) and with new
// values interpolated from their neighbours (update_mesh_no_init); for the second one the largest
// error of an interpolated value is shown. Every tenth mesh is drawn. At the end:
//
//      100     1229      533      523     1236      551      538   0.0588
//     largest error of an interpolated value from step 10 on: 0.1060
//
//     03_follow_the_data             pictures go to the folder pictures/
//     03_follow_the_data my/folder   pictures go to my/folder/
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "pictures.hpp"
#include "scenarios/scenarios.hpp"
#include "velmar_2D/velmar_2D_io.hpp"

namespace {

using velmar_2d::Cell;

constexpr int nodes_per_side = 17;
constexpr int subdivision_limit = 9;
constexpr int nb_steps = 100;
constexpr int steps_per_picture = 10;
constexpr double front_width = 0.02;
/// Error that a chord between two nodes may have. The data span the values -1 to 1.
constexpr double chord_error = 0.03;

/// The front at a time from 0 to 1: a wavy line that moves from west to east.
double profile(double time, double x, double y) {
  const double front = 0.1 + 0.8 * time + 0.06 * std::sin(9.0 * y + 6.0 * time);
  return std::tanh((x - front) / front_width);
}

/// The spacing h at which a chord misses the data by chord_error: f'' h^2 / 8, and where the slope
/// is so steep that one spacing spans much of the front, no more of it than a quarter of its
/// height.
double spacing(double, double, std::span<const double>, double gradient, double hessian) {
  const double by_curvature = std::sqrt(8.0 * chord_error / hessian);
  const double by_slope = 0.5 / gradient;
  return std::max(std::min(by_curvature, by_slope), velmar_2d::dist_0 / 16.0);
}

void sample(double time) {
  for (Cell* c = velmar_2d::mesh_beg; c != nullptr; c = c->next) {
    c->data[0] = profile(time, c->x, c->y);
  }
}

struct Row {
  int nodes = 0, inserted = 0, removed = 0;
  double error = 0.0;  ///< largest error of a new value
};

/// Adapts the mesh to the data of a time.
Row adapt(double time, bool interpolate) {
  const int nodes_before = velmar_2d::nb_nodes, first_new_id = velmar_2d::next_id;
  if (interpolate) {
    velmar_2d::update_mesh_no_init(spacing);
  } else {
    velmar_2d::update_mesh_init(spacing,
                                [time](double x, double y) { return profile(time, x, y); });
  }
  Row row;
  row.nodes = velmar_2d::nb_nodes;
  row.inserted = velmar_2d::next_id - first_new_id;
  row.removed = nodes_before + row.inserted - row.nodes;
  for (const Cell* c = velmar_2d::mesh_beg; c != nullptr; c = c->next) {
    if (c->id < first_new_id) continue;
    row.error = std::max(row.error, std::abs(c->data[0] - profile(time, c->x, c->y)));
  }
  return row;
}

std::vector<Row> run(bool interpolate, const std::filesystem::path& folder) {
  velmar_2d::n_cell_data = 1;
  velmar_2d::scenarios::init_unit_square(nodes_per_side, nodes_per_side, subdivision_limit);
  std::vector<Row> rows;
  for (int step = 0; step <= nb_steps; ++step) {
    const double time = static_cast<double>(step) / nb_steps;
    sample(time);
    rows.push_back(adapt(time, interpolate));
    if (interpolate || step % steps_per_picture != 0) continue;
    velmar_2d::io::PictureOptions options;
    options.title = "A mesh that follows a front, step " + std::to_string(step);
    char name[40];
    std::snprintf(name, sizeof name, "03_follow_the_data_%03d.png", step);
    require(velmar_2d::io::draw_mesh((folder / name).string(), options));
  }
  velmar_2d::delete_mesh();
  return rows;
}

}  // namespace

int main(int argc, char** argv) {
  const std::filesystem::path folder = picture_folder(argc, argv);
  const std::vector<Row> exact = run(false, folder), interpolated = run(true, folder);
  std::printf("            new values exact            new values interpolated\n");
  std::printf("step    nodes inserted  removed    nodes inserted  removed    error\n");
  for (std::size_t step = 0; step < exact.size(); step += steps_per_picture) {
    const Row &a = exact[step], &b = interpolated[step];
    std::printf("%4zu %8d %8d %8d %8d %8d %8d %8.4f\n", step, a.nodes, a.inserted, a.removed,
                b.nodes, b.inserted, b.removed, b.error);
  }
  double largest = 0.0;
  for (std::size_t step = 10; step < interpolated.size(); ++step) {
    largest = std::max(largest, interpolated[step].error);
  }
  std::printf("largest error of an interpolated value from step 10 on: %.4f\n", largest);
  return EXIT_SUCCESS;
}
