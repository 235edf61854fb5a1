// The control cells as filled polygons.
#include <algorithm>
#include <cmath>
#include <cstddef>

#include "io/picture.hpp"

namespace velmar_2d::io {
namespace {

constexpr std::int32_t first_side_type = 11, first_corner_type = 31;

/// Classifying keeps what it finds in the node, and a picture changes nothing: it is shown a node
/// with the same level and links, and without what other threads may be noting meanwhile.
std::int32_t type_of(const Mesh& mesh, const Cell& node) {
  Cell copy;
  copy.id = node.id;
  copy.x = node.x, copy.y = node.y;
  copy.level = node.level;
  copy.n = node.n, copy.ne = node.ne, copy.e = node.e, copy.se = node.se;
  copy.s = node.s, copy.sw = node.sw, copy.w = node.w, copy.nw = node.nw;
  copy.nl = node.nl, copy.nel = node.nel, copy.el = node.el, copy.sel = node.sel;
  copy.sl = node.sl, copy.swl = node.swl, copy.wl = node.wl, copy.nwl = node.nwl;
  return mesh.shape(copy).type;
}

double place_on_scale(double value, const std::array<double, 2>& range) {
  return range[1] > range[0] ? (value - range[0]) / (range[1] - range[0]) : 0.5;
}

/// Edges between cells show where the cells are large enough on paper to be told apart.
constexpr double smallest_with_edges = 5.0;

}  // namespace

Colour colour_of_cell_type(std::int32_t type) {
  if (type >= first_corner_type) return {0.66, 0.67, 0.70};
  if (type >= first_side_type) return {0.82, 0.83, 0.85};
  // The regular cell, by far the most frequent one, stays quiet.
  return type <= 1 ? Colour{0.89, 0.92, 0.96} : on_wheel(type - 1, 8);
}

std::array<double, 2> value_range(const Survey& survey, const PictureOptions& options) {
  return options.lowest_value < options.highest_value
             ? std::array{options.lowest_value, options.highest_value}
             : std::array{survey.lowest_value, survey.highest_value};
}

void draw_cells(cairo_t* pen, const Survey& survey, const View& view,
                const PictureOptions& options) {
  const Mesh& mesh = *survey.mesh;
  const std::array<double, 2> range = value_range(survey, options);
  const auto colour_of = [&](const Cell& node) {
    switch (options.cells) {
      case CellColour::type: return colour_of_cell_type(type_of(mesh, node));
      case CellColour::level: return colour_of_level(survey, node.level);
      default: return on_scale(place_on_scale(shown_value(node, options), range), options.palette);
    }
  };
  cairo_set_line_join(pen, CAIRO_LINE_JOIN_ROUND);
  for (const Cell& node : mesh.nodes()) {
    cairo_new_path(pen);
    for (const Point& corner : mesh.polygon(node)) {
      cairo_line_to(pen, view.column(corner.x), view.row(corner.y));
    }
    cairo_close_path(pen);
    const Colour colour = colour_of(node);
    set_colour(pen, colour);
    cairo_fill_preserve(pen);
    // A stroke in the cell's own colour covers the pale seam between two fills.
    const bool edges = mesh.spacing_of_level(node.level) * view.scale >= smallest_with_edges;
    if (edges) set_colour(pen, palette::paper, 0.75);
    cairo_set_line_width(pen, edges ? 0.8 : 0.3);
    cairo_stroke(pen);
  }
}

}  // namespace velmar_2d::io
