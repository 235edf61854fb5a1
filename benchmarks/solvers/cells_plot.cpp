// Draws the cells of several meshes below one another: velmar_2d_cells PICTURE.png TITLE CELLS
// [TITLE CELLS ...]. A file of cells begins with the x of a window's sides and has a line
// `u x y x y ...` for each cell; a window is twice as wide as high.
#include <cairo.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

struct Cell {
  double value = 0.0;
  std::vector<std::pair<double, double>> corners;
};

struct Window {
  double left = 0.0, right = 1.0;
  std::vector<Cell> cells;
};

Window read_cells(const std::string& path) {
  std::ifstream file(path);
  Window window;
  std::string line;
  file >> window.left >> window.right;
  std::getline(file, line);
  while (std::getline(file, line)) {
    std::istringstream words(line);
    Cell cell;
    words >> cell.value;
    for (double x = 0.0, y = 0.0; words >> x >> y;) cell.corners.emplace_back(x, y);
    window.cells.push_back(cell);
  }
  return window;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4 || argc % 2 != 0) {
    std::fprintf(stderr, "usage: velmar_2d_cells PICTURE.png TITLE CELLS [TITLE CELLS ...]\n");
    return 2;
  }
  constexpr int width = 760, title = 26;
  const int panels = (argc - 2) / 2;
  const int high = width / 2;
  cairo_surface_t* surface =
      cairo_image_surface_create(CAIRO_FORMAT_RGB24, width, panels * (high + title));
  cairo_t* cr = cairo_create(surface);
  cairo_set_source_rgb(cr, 1.0, 1.0, 1.0);
  cairo_paint(cr);
  cairo_select_font_face(cr, "sans-serif", CAIRO_FONT_SLANT_NORMAL, CAIRO_FONT_WEIGHT_NORMAL);
  cairo_set_font_size(cr, 15.0);
  for (int panel = 0; panel < panels; ++panel) {
    const Window window = read_cells(argv[3 + 2 * panel]);
    if (window.cells.empty()) {
      std::fprintf(stderr, "%s: no cells\n", argv[3 + 2 * panel]);
      return 1;
    }
    const double scale = width / (window.right - window.left);
    const double bottom = (panel + 1) * (high + title);
    cairo_save(cr);
    cairo_rectangle(cr, 0.0, bottom - high, width, high);
    cairo_clip(cr);
    for (const Cell& cell : window.cells) {
      for (const auto& [x, y] : cell.corners) {
        cairo_line_to(cr, (x - window.left) * scale, bottom - y * scale);
      }
      cairo_close_path(cr);
      const double u = std::clamp(cell.value, 0.0, 1.0);
      cairo_set_source_rgb(cr, 1.0 - 0.1 * u, 1.0 - 0.45 * u, 1.0 - 0.8 * u);
      cairo_fill_preserve(cr);
      cairo_set_source_rgb(cr, 0.25, 0.25, 0.3);
      cairo_set_line_width(cr, 0.6);
      cairo_stroke(cr);
    }
    cairo_restore(cr);
    cairo_set_source_rgb(cr, 0.0, 0.0, 0.0);
    cairo_move_to(cr, 4.0, bottom - high - 8.0);
    cairo_show_text(cr, argv[2 + 2 * panel]);
  }
  const bool good = cairo_surface_write_to_png(surface, argv[1]) == CAIRO_STATUS_SUCCESS;
  if (!good) std::fprintf(stderr, "cannot write %s\n", argv[1]);
  cairo_destroy(cr);
  cairo_surface_destroy(surface);
  return good ? 0 : 1;
}
