// What the layers of a picture share: the survey of the mesh and the place of the domain on paper.
#pragma once

#include <cairo.h>

#include <array>
#include <cstdint>
#include <vector>

#include "io/palette.hpp"
#include "velmar_2D/velmar_2D_io.hpp"

namespace velmar_2d::io {

/// The mesh, and everything that has to be known about it before the first line is drawn.
struct Survey {
  const Mesh* mesh = nullptr;
  double west = 0.0, east = 0.0, south = 0.0, north = 0.0;
  std::int64_t nb_nodes = 0;
  std::int64_t nb_links = 0;                 ///< between nodes, each counted once
  std::vector<std::int32_t> nodes_of_level;  ///< how many nodes have each level
  std::int32_t lowest_level = 0, highest_level = 0;
  std::array<bool, 3> side_kinds{};                ///< which kinds of condition occur, by bc_type
  double lowest_value = 0.0, highest_value = 0.0;  ///< of the values that are shown
  Palette palette = Palette::calm;
};

Survey survey_of(const Mesh& mesh, const PictureOptions& options);

/// The data value of a node that is shown; one that has none counts as holding 0.
inline double shown_value(const Cell& node, const PictureOptions& options) {
  return options.component < node.data.size() ? node.data[options.component] : 0.0;
}

/// The values at the ends of the colour scale of a picture.
std::array<double, 2> value_range(const Survey& survey, const PictureOptions& options);

/// Colour of a control cell of this type.
Colour colour_of_cell_type(std::int32_t type);

/// Colour of a level in this mesh.
Colour colour_of_level(const Survey& survey, std::int32_t level);

/// Where the domain lies on the paper.
struct View {
  double left = 0.0, top = 0.0, width = 0.0, height = 0.0;  ///< of the domain, on paper
  double scale = 1.0;                                       ///< paper per unit of x and y
  double west = 0.0, north = 0.0;
  double spare_height = 0.0;  ///< height of the paper that stays empty

  double column(double x) const { return left + (x - west) * scale; }
  double row(double y) const { return top + (north - y) * scale; }
};

/// Places the domain between title and legend, as large as fits.
View place_domain(const Survey& survey, const PictureOptions& options);

void set_colour(cairo_t* pen, const Colour& colour, double opacity = 1.0);

/// Line of a side with this kind of condition, in force until the caller restores the pen.
void set_side_style(cairo_t* pen, std::int32_t bc_type);
inline constexpr double side_line_width = 3.0;

void draw_cells(cairo_t* pen, const Survey& survey, const View& view,
                const PictureOptions& options);

void draw_title(cairo_t* pen, const Survey& survey, const View& view,
                const PictureOptions& options);
void draw_legend(cairo_t* pen, const Survey& survey, const View& view,
                 const PictureOptions& options);

}  // namespace velmar_2d::io
