// A mesh that follows its data: no formula tells it where the front is.
//
// A steep front, f = tanh(distance to a moving curve / width), crosses the unit square in 100
// steps. The wanted spacing is computed from the gradient and Hessian norms of the data alone: a
// chord over one spacing may miss the data by no more than a given error, f'' h^2 / 8. After each
// step the exact profile is sampled again at the nodes, as a solver would leave its solution there.
//
// Two meshes run side by side: one takes new values from the profile, the other interpolates them
// from their neighbours; for the second one the largest error of an interpolated value is shown.
// Every tenth mesh of the first one is drawn. At the end:
//
//      100     1600      132      136     1600      132      136   0.0554
//     largest error of an interpolated value from step 10 on: 0.0559
//
//     03_follow_the_data             pictures go to the folder pictures/
//     03_follow_the_data my/folder   pictures go to my/folder/
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "pictures.hpp"
#include "velmar_2D/velmar_2D_io.hpp"

namespace {

using velmar_2d::Cell, velmar_2d::Mesh;

constexpr int nodes_per_side = 17;
constexpr double finest = 1.0 / (nodes_per_side - 1) / 16.0;
constexpr int subdivision_limit = 8;
constexpr int nb_steps = 100;
constexpr int steps_per_picture = 10;
constexpr double front_width = 0.02;
/// Error that a chord between two nodes may have. The data span the values -1 to 1.
constexpr double chord_error = 0.03;
/// A node more or less changes the derivatives nearby; half a level of patience keeps others from
/// going and coming again for that.
constexpr velmar_2d::Resolution settled{.margin = 0.5};

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
  return std::max(std::min(by_curvature, by_slope), finest);
}

void sample(Mesh& mesh, double time) {
  for (Cell& c : mesh.nodes()) c.data[0] = profile(time, c.x, c.y);
}

struct Row {
  long long nodes = 0, inserted = 0, removed = 0;
  double error = 0.0;  ///< largest error of a new value
};

/// Adapts the mesh to the data of a time.
Row adapt(Mesh& mesh, double time, bool interpolate) {
  const std::int64_t first_new_id = mesh.next_id();
  const velmar_2d::UpdateStatistics done =
      interpolate
          ? mesh.resolve(spacing, settled)
          : mesh.resolve(
                spacing, [time](double x, double y) { return profile(time, x, y); }, settled);
  Row row{mesh.size(), done.inserted, done.removed};
  for (const Cell& c : mesh.nodes()) {
    if (c.id < first_new_id) continue;
    row.error = std::max(row.error, std::abs(c.data[0] - profile(time, c.x, c.y)));
  }
  return row;
}

void draw(const Mesh& mesh, int step, const std::filesystem::path& folder) {
  velmar_2d::io::PictureOptions options;
  options.title = "A mesh that follows a front, step " + std::to_string(step);
  char name[40];
  std::snprintf(name, sizeof name, "03_follow_the_data_%03d.png", step);
  require(velmar_2d::io::draw_mesh(mesh, (folder / name).string(), options));
}

}  // namespace

int main(int argc, char** argv) {
  const std::filesystem::path folder = picture_folder(argc, argv);
  const velmar_2d::Grid grid{
      .nx = nodes_per_side, .subdiv_max = subdivision_limit, .n_cell_data = 1};
  Mesh exact({0.0, 1.0, 0.0, 1.0}, grid), interpolated({0.0, 1.0, 0.0, 1.0}, grid);
  std::printf("            new values exact            new values interpolated\n");
  std::printf("step    nodes inserted  removed    nodes inserted  removed    error\n");
  double largest = 0.0;
  for (int step = 0; step <= nb_steps; ++step) {
    const double time = static_cast<double>(step) / nb_steps;
    sample(exact, time);
    sample(interpolated, time);
    const Row a = adapt(exact, time, false), b = adapt(interpolated, time, true);
    if (step >= 10) largest = std::max(largest, b.error);
    if (step % steps_per_picture != 0) continue;
    draw(exact, step, folder);
    std::printf("%4d %8lld %8lld %8lld %8lld %8lld %8lld %8.4f\n", step, a.nodes, a.inserted,
                a.removed, b.nodes, b.inserted, b.removed, b.error);
  }
  std::printf("largest error of an interpolated value from step 10 on: %.4f\n", largest);
  return EXIT_SUCCESS;
}
