// What surrounds the code of a page.
#pragma once

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <future>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <vector>

#include "velmar_2D/arrays.hpp"
#include "velmar_2D/mesh.hpp"
#include "velmar_2D/velmar_2D.hpp"
#include "velmar_2D/velmar_2D_io.hpp"
#if __has_include("velmar_2D/velmar_2D_hdf5.hpp")
#include "velmar_2D/velmar_2D_hdf5.hpp"
#endif
#if __has_include("velmar_2D/velmar_2D_numerics.hpp")
#include "velmar_2D/velmar_2D_numerics.hpp"
#endif

namespace page {

inline double size(double x, double y, std::span<const double>, double, double) {
  return 0.02 + 0.2 * std::abs(std::hypot(x, y) - 0.7);
}
inline double data(double x, double y) { return x * x + y; }

/// A small mesh of the unit square with one data value, refined around an arc.
inline velmar_2d::Mesh make_mesh() {
  velmar_2d::Mesh mesh({0.0, 1.0, 0.0, 1.0}, {.nx = 9, .subdiv_max = 8, .n_cell_data = 1});
  mesh.resolve(size, data);
  return mesh;
}

/// The same one for the free procedures.
inline void make_default_mesh() {
  using namespace velmar_2d;
  static Boundary north, east, south, west;
  north = {1.0}, east = {1.0}, south = {0.0}, west = {0.0};
  north_boundary_dir = &north, east_boundary_dir = &east;
  south_boundary_dir = &south, west_boundary_dir = &west;
  n_cell_data = 1;
  double y_max = 1.0;
  init_mesh([](double, double, std::string_view) { return bc_type_dir; }, 9, 9, 8, y_max);
  resolve_mesh_init(size, data);
}

/// Runs a block, its output between two marks, and leaves no mesh and no handler to the next one.
inline void run(int (*block)()) {
  std::printf("<<begin>>\n");
  if (block() != 0) std::exit(EXIT_FAILURE);
  std::printf("<<end>>\n");
  velmar_2d::message_handler = velmar_2d::pause_handler = velmar_2d::fatal_handler = nullptr;
  if (velmar_2d::nb_nodes > 0) velmar_2d::delete_mesh();
  velmar_2d::n_cell_data = 0;
}

}  // namespace page
