// Writes meshes as .vtu files, and beside each a plain table of its nodes to compare with.
//
//     write_sample_files FOLDER
//
// A history leaves the library's messages on standard output; they are of no interest here.
#include <cstdio>
#include <cstdlib>

#include "support/history.hpp"
#include "velmar_2D/velmar_2D.hpp"
#include "velmar_2D/velmar_2D_io.hpp"

namespace {

using namespace velmar_2d;

void require(const std::string& error) {
  if (error.empty()) return;
  std::fprintf(stderr, "%s\n", error.c_str());
  std::exit(EXIT_FAILURE);
}

void write_table(const std::string& path) {
  std::FILE* table = std::fopen(path.c_str(), "w");
  if (table == nullptr) require("cannot write " + path);
  std::fprintf(table, "%.17g %.17g %.17g %.17g\n", x_min, east_boundary_dir->c, y_min,
               north_boundary_dir->c);
  for (Cell* node = mesh_beg; node != nullptr; node = node->next) {
    std::fprintf(table, "%.17g %.17g %lld %d %d %d %.17g %.17g %.17g", node->x, node->y,
                 static_cast<long long>(node->id), node->level, node->ipos, node->on_boundary,
                 cell_area(node), node->grad_data, node->grad2_data);
    for (const double value : node->data) std::fprintf(table, " %.17g", value);
    std::fprintf(table, "\n");
  }
  std::fclose(table);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  constexpr std::uint64_t nb_histories = 24;
  for (std::uint64_t seed = 0; seed < nb_histories; ++seed) {
    tests::run_history({seed, tests::Steps::single_nodes, seed % 4 == 3, 5},
                       [](const std::string&) {});
    double marker = 0.1;
    for (Cell* node = mesh_beg; node != nullptr; node = node->next) {
      for (double& value : node->data) value = marker /= -1.01;
    }
    const std::string name = argv[1] + ("/mesh_" + std::to_string(seed));
    const std::vector<std::string> names(n_cell_data > 0 ? 1 : 0, "first");
    const double time = 0.1 * static_cast<double>(seed);
    require(io::write_vtu(name + "_triangles.vtu", {.data_names = names, .time = time}));
    require(io::write_vtu(name + "_triangles_ascii.vtu",
                          {.ascii = true, .data_names = names, .time = time}));
    require(io::write_vtu(name + "_cells.vtu",
                          {.cells = io::VtuCells::control_cells, .data_names = names}));
    write_table(name + ".txt");
    delete_mesh();
  }
  require(io::write_pvd(argv[1] + std::string("/series.pvd"),
                        {{0.0, argv[1] + std::string("/mesh_0_cells.vtu")},
                         {0.1, argv[1] + std::string("/mesh_1_cells.vtu")}}));
  return 0;
}
