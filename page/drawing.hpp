// Pictures of the stage: pixels for the screen, and SVG.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "page/stage.hpp"

namespace velmar_2d::page {

/// Red, green, blue, 0 to 255.
using Colour = std::array<double, 3>;

/// What is drawn, and how.
struct Look {
  bool links = true, cells = false, by_value = false, dark = false, mark_coarse = true;
  double sharpness = 1.0;  ///< pixels of the screen for each pixel of the page
};

/// What part of the plane the picture shows: this point in its middle, so many pixels a unit.
struct View {
  int width = 0, height = 0;
  double x = 0.5, y = 0.5, scale = 500.0;
  double column(double px) const { return 0.5 * width + (px - x) * scale; }
  double row(double py) const { return 0.5 * height - (py - y) * scale; }
};

/// Pixels, row after row from the top: red, green, blue, opacity. What lies outside the domain is
/// clear.
struct Canvas {
  int width = 0, height = 0;
  std::vector<std::uint32_t> pixels;
};

Colour paper(bool dark);
/// From sand over teal and blue to violet; on dark paper ever brighter.
Colour colour_of(double value, bool dark);

void draw(const Stage& stage, const Look& look, const View& view, Canvas& canvas);

/// The control cell of a node and its links, over what was drawn.
void draw_node(const Stage& stage, const Cell& node, const Look& look, const View& view,
               Canvas& canvas);

/// What the view shows, as an SVG file.
std::string draw_svg(const Stage& stage, const Look& look, const View& view);

// Rows and pixels.

struct Spot {
  double column, row;
};
void fill_convex(Canvas& canvas, const Spot* corners, int n, const Colour& colour);
void draw_line(Canvas& canvas, Spot from, Spot to, double width, const Colour& colour,
               double opacity);
void draw_dot(Canvas& canvas, Spot middle, double radius, const Colour& colour, double opacity);

}  // namespace velmar_2d::page
