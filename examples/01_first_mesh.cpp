// The first mesh: a grid of the unit square that follows a travelling ring.
//
// A circle of radius 0.3 moves from (0.3, 0.5) to (0.7, 0.5) in 50 steps. After each step the mesh
// is adapted once: fine along the circle, coarse away from it. The last mesh is drawn three times:
// as PNG for a quick look, as SVG for the web and as PDF for print.
//
//     01_first_mesh             pictures go to the folder pictures/
//     01_first_mesh my/folder   pictures go to my/folder/
//
// Every update prints the nodes it left, what it inserted and removed, and its time. At the end:
//
//     update 50:  43925 nodes   +1815  -2460     2.28 ms
//     picture: pictures/01_first_mesh.png
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "pictures.hpp"
#include "scenarios/scenarios.hpp"
#include "velmar_2D/velmar_2D_io.hpp"

namespace {

constexpr int nodes_per_side = 33;
constexpr int nb_updates = 50;
// Sixteen times finer than the grid is eight levels down, since two levels halve the spacing.
constexpr int subdivision_limit = 8;

/// Fixed values on the west and east sides, no flux through the two others.
std::int32_t condition(double, double, std::string_view side) {
  return side == "West" || side == "East" ? velmar_2d::bc_type_dir : velmar_2d::bc_type_neu;
}

/// Adapts the mesh and prints what changed. One call is enough, however far the ring has moved.
void update(velmar_2d::Mesh& mesh, int step, const velmar_2d::size_function& spacing) {
  const auto start = std::chrono::steady_clock::now();
  const velmar_2d::UpdateStatistics done = mesh.resolve(spacing);
  const std::chrono::duration<double, std::milli> time = std::chrono::steady_clock::now() - start;

  std::printf("update %2d: %6lld nodes  %+6lld %+6lld  %7.2f ms\n", step,
              static_cast<long long>(mesh.size()), static_cast<long long>(done.inserted),
              -static_cast<long long>(done.removed), time.count());
}

}  // namespace

int main(int argc, char** argv) {
  const std::filesystem::path folder = picture_folder(argc, argv);

  // 1. A uniform grid of the unit square.
  velmar_2d::Mesh mesh(
      {0.0, 1.0, 0.0, 1.0},
      {.nx = nodes_per_side, .subdiv_max = subdivision_limit, .bc_type = condition});

  // 2. Adapt it, update after update.
  const double coarsest = mesh.dist_0();
  const double finest = mesh.dist_0() / 16.0;
  for (int step = 1; step <= nb_updates; ++step) {
    const double time = static_cast<double>(step) / nb_updates;
    const auto ring = velmar_2d::scenarios::travelling_ring(time);
    update(mesh, step, velmar_2d::scenarios::ring_spacing(ring, 0.1, finest, coarsest));
  }

  // 3. Look at it.
  velmar_2d::io::PictureOptions options;
  options.title = "A grid that follows a travelling ring";
  std::string picture;
  for (const char* extension : {".svg", ".pdf", ".png"}) {
    picture = (folder / "01_first_mesh").string() + extension;
    require(velmar_2d::io::draw_mesh(mesh, picture, options));
  }
  std::printf("picture: %s\n", picture.c_str());
  return EXIT_SUCCESS;  // 4. The mesh goes with its scope.
}
