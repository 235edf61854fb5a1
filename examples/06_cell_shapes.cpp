// The nine shapes of control cells: finds each of them in a mesh and draws it with its links, its
// signature and its area; then draws a mesh whose cells are coloured by their shapes.
//
//     06_cell_shapes             pictures go to the folder pictures/
//     06_cell_shapes my/folder   pictures go to my/folder/
//
// It prints what the first picture shows, and ends with
//
//     type 9   signature 127,   8   area 15/32
//     pictures: pictures/06_cell_shapes.png pictures/06_cell_types.png (4317 nodes)
#include <cairo.h>

#include <array>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <numeric>
#include <string>

#include "pictures.hpp"
#include "scenarios/scenarios.hpp"
#include "velmar_2D/velmar_2D_io.hpp"

namespace {

using velmar_2d::Cell, velmar_2d::Mesh;

constexpr int nb_types = 9, panels_per_row = 3;
constexpr double panel_width = 280.0, panel_height = 320.0;

/// A node of each type in the orientation that the others are turned and mirrored from.
std::array<Cell*, nb_types> find_shapes(Mesh& mesh) {
  std::array<Cell*, nb_types> found{};
  for (Cell& c : mesh.nodes()) {
    const auto [type, shift] = mesh.shape(c);
    if (type >= 1 && type <= nb_types && shift == 0) found[static_cast<std::size_t>(type - 1)] = &c;
  }
  return found;
}

/// Area in units of dist_0^2 / 2^level: a whole number of 32nds.
std::string area_text(const Mesh& mesh, Cell& c) {
  const double unit = std::ldexp(mesh.dist_0() * mesh.dist_0(), -c.level);
  const long parts = std::lround(32.0 * mesh.area(c) / unit);
  const long divisor = std::gcd(parts, 32L);
  return parts == 32 ? "1" : std::to_string(parts / divisor) + "/" + std::to_string(32 / divisor);
}

void write_centred(cairo_t* pen, double column, double row, double size, const std::string& text) {
  cairo_set_font_size(pen, size);
  cairo_text_extents_t extents;
  cairo_text_extents(pen, text.c_str(), &extents);
  cairo_move_to(pen, column - 0.5 * extents.x_advance, row);
  cairo_show_text(pen, text.c_str());
}

/// One shape around the point (column, row): cell, links, nodes and words.
void draw_shape(cairo_t* pen, const Mesh& mesh, Cell& c, int type, double column, double row) {
  const double scale = 0.40 * panel_width / mesh.spacing_of_level(c.level);
  const auto x = [&](double at) { return column + (at - c.x) * scale; };
  const auto y = [&](double at) { return row - (at - c.y) * scale; };

  cairo_new_path(pen);
  for (const velmar_2d::Point& corner : mesh.polygon(c)) {
    cairo_line_to(pen, x(corner.x), y(corner.y));
  }
  cairo_close_path(pen);
  cairo_set_source_rgb(pen, 0.80, 0.88, 0.95);
  cairo_fill_preserve(pen);
  cairo_set_source_rgb(pen, 0.16, 0.37, 0.58);
  cairo_set_line_width(pen, 2.0);
  cairo_stroke(pen);

  const auto dot = [&](const Cell& node, double radius) {
    cairo_arc(pen, x(node.x), y(node.y), radius, 0.0, 2.0 * std::acos(-1.0));
    cairo_fill(pen);
  };
  cairo_set_source_rgb(pen, 0.45, 0.48, 0.55);
  cairo_set_line_width(pen, 1.0);
  for (const Cell* neighbour : mesh.faces(c).neighbour) {
    if (neighbour == nullptr) continue;
    cairo_move_to(pen, x(c.x), y(c.y));
    cairo_line_to(pen, x(neighbour->x), y(neighbour->y));
    cairo_stroke(pen);
    dot(*neighbour, 4.0);
  }
  cairo_set_source_rgb(pen, 0.13, 0.15, 0.20);
  dot(c, 6.0);

  const std::string signature =
      std::to_string(c.signature[0]) + ", " + std::to_string(c.signature[1]);
  write_centred(pen, column, row + 0.5 * panel_width + 8.0, 17.0, "type " + std::to_string(type));
  write_centred(pen, column, row + 0.5 * panel_width + 28.0, 13.0,
                "signature " + signature + "    area " + area_text(mesh, c));
  std::printf("type %d   signature %3d, %3d   area %s\n", type, c.signature[0], c.signature[1],
              area_text(mesh, c).c_str());
}

}  // namespace

int main(int argc, char** argv) {
  namespace scenarios = velmar_2d::scenarios;
  const std::filesystem::path folder = picture_folder(argc, argv);
  const std::string shapes_file = (folder / "06_cell_shapes.png").string();
  const std::string types_file = (folder / "06_cell_types.png").string();

  // A spacing that jumps about makes every shape.
  const velmar_2d::Grid grid{.nx = 17, .subdiv_max = 8};
  Mesh mesh({0.0, 1.0, 0.0, 1.0}, grid);
  mesh.resolve(scenarios::random_spacing(6, 0.05, mesh.dist_0() / 16.0, mesh.dist_0()));

  cairo_surface_t* surface =
      cairo_image_surface_create(CAIRO_FORMAT_RGB24, static_cast<int>(panels_per_row * panel_width),
                                 static_cast<int>((nb_types / panels_per_row) * panel_height));
  cairo_t* pen = cairo_create(surface);
  cairo_set_source_rgb(pen, 1.0, 1.0, 1.0);
  cairo_paint(pen);
  const std::array<Cell*, nb_types> shapes = find_shapes(mesh);
  bool complete = true;
  for (int type = 1; type <= nb_types; ++type) {
    Cell* c = shapes[static_cast<std::size_t>(type - 1)];
    complete = complete && c != nullptr;
    if (c == nullptr) continue;
    draw_shape(pen, mesh, *c, type, panel_width * (0.5 + (type - 1) % panels_per_row),
               panel_height * ((type - 1) / panels_per_row) + 0.5 * panel_width);
  }
  const cairo_status_t status = cairo_surface_write_to_png(surface, shapes_file.c_str());
  cairo_destroy(pen);
  cairo_surface_destroy(surface);
  if (!complete) require(shapes_file + ": a shape is missing");
  if (status != CAIRO_STATUS_SUCCESS) {
    require(shapes_file + ": " + cairo_status_to_string(status));
  }

  Mesh ring({0.0, 1.0, 0.0, 1.0}, grid);
  ring.resolve(scenarios::ring_spacing({}, 0.3, ring.dist_0() / 8.0, ring.dist_0()));
  velmar_2d::io::PictureOptions options;
  options.title = "Control cells by their shape";
  options.cells = velmar_2d::io::CellColour::type;
  options.links = false;
  require(velmar_2d::io::draw_mesh(ring, types_file, options));
  std::printf("pictures: %s %s (%lld nodes)\n", shapes_file.c_str(), types_file.c_str(),
              static_cast<long long>(ring.size()));
}
