#include <algorithm>
#include <cmath>
#include <cstdio>
#include <numbers>

#include "page/seen.hpp"

namespace velmar_2d::page {
namespace {

constexpr Colour light_paper = {252.0, 251.0, 248.0}, dark_paper = {22.0, 26.0, 33.0};
Colour ink(bool dark) { return dark ? Colour{240.0, 240.0, 240.0} : Colour{20.0, 24.0, 32.0}; }

/// Oklab, B. Ottosson, "A perceptual color space for image processing", 2020.
Colour of_lightness(double lightness, double chroma, double degrees) {
  const double hue = degrees * std::numbers::pi / 180.0;
  const double a = chroma * std::cos(hue), b = chroma * std::sin(hue);
  const auto cube = [](double root) { return root * root * root; };
  const double l = cube(lightness + 0.3963377774 * a + 0.2158037573 * b);
  const double m = cube(lightness - 0.1055613458 * a - 0.0638541728 * b);
  const double s = cube(lightness - 0.0894841775 * a - 1.2914855480 * b);
  const auto channel = [](double linear) {
    const double value =
        linear <= 0.0031308 ? 12.92 * linear : 1.055 * std::pow(linear, 1.0 / 2.4) - 0.055;
    return 255.0 * std::clamp(value, 0.0, 1.0);
  };
  return {channel(4.0767416621 * l - 3.3077115913 * m + 0.2309699292 * s),
          channel(-1.2684380046 * l + 2.6097574011 * m - 0.3413193965 * s),
          channel(-0.0041960863 * l - 0.7034186147 * m + 1.7076147010 * s)};
}

constexpr std::size_t nb_shades = 256;
using Scale = std::array<Colour, nb_shades>;

Scale make_scale(bool dark) {
  struct Stop {
    double lightness, chroma, hue;
  };
  static constexpr std::array<Stop, 5> on_light = {{{0.80, 0.115, 95.0},
                                                    {0.71, 0.125, 155.0},
                                                    {0.60, 0.105, 215.0},
                                                    {0.48, 0.155, 275.0},
                                                    {0.40, 0.190, 325.0}}};
  static constexpr std::array<Stop, 5> on_dark = {{{0.42, 0.080, 300.0},
                                                   {0.52, 0.130, 265.0},
                                                   {0.66, 0.110, 215.0},
                                                   {0.78, 0.125, 160.0},
                                                   {0.90, 0.120, 95.0}}};
  const auto& stops = dark ? on_dark : on_light;
  Scale scale;
  for (std::size_t i = 0; i < nb_shades; ++i) {
    const double where = 4.0 * static_cast<double>(i) / (nb_shades - 1);
    const auto below = std::min<std::size_t>(3, static_cast<std::size_t>(where));
    const double part = where - static_cast<double>(below);
    const Stop &a = stops[below], &b = stops[below + 1];
    scale[i] = of_lightness(std::lerp(a.lightness, b.lightness, part),
                            std::lerp(a.chroma, b.chroma, part), std::lerp(a.hue, b.hue, part));
  }
  return scale;
}

double line_width(double length, double sharpness) {
  return sharpness * std::clamp(0.2 + 0.1 * length / sharpness, 0.25, 1.2);
}

}  // namespace

Colour paper(bool dark) { return dark ? dark_paper : light_paper; }

Colour colour_of(double value, bool dark) {
  static const std::array<Scale, 2> scales = {make_scale(false), make_scale(true)};
  return scales[dark ? 1 : 0][static_cast<std::size_t>(
      std::lround(std::clamp(value, 0.0, 1.0) * (nb_shades - 1)))];
}

namespace {

using Outline = std::array<Spot, max_cell_corners>;

/// Borders between the cells, each from one of the two that it parts.
void draw_borders(Canvas& canvas, const Outline& outline, int n, const Look& look) {
  for (int k = 0; k < n; ++k) {
    const Spot &a = outline[static_cast<std::size_t>(k)],
               &b = outline[static_cast<std::size_t>(k + 1 == n ? 0 : k + 1)];
    const bool is_upper = b.column < a.column || (b.column == a.column && b.row < a.row);
    const double length = std::hypot(b.column - a.column, b.row - a.row);
    if (!is_upper || length < 2.0 * look.sharpness) continue;
    draw_line(canvas, a, b, line_width(length, look.sharpness), paper(look.dark), 0.7);
  }
}

void draw_cells(const Stage& stage, const Look& look, const View& view, Canvas& canvas) {
  const Shade shade(stage, look);
  for_each_seen(stage, view, [&](const Cell& c, std::size_t i, Spot) {
    Outline outline;
    int n = 0;
    for (const Point& p : stage.mesh->polygon(c)) {
      outline[static_cast<std::size_t>(n++)] = {view.column(p.x), view.row(p.y)};
    }
    fill_convex(canvas, outline.data(), n, colour_of(shade(c, i), look.dark));
    if (!look.links) draw_borders(canvas, outline, n, look);
  });
}

void draw_links(const Stage& stage, const Look& look, const View& view, Canvas& canvas) {
  const Shade shade(stage, look);
  for_each_seen(stage, view, [&](const Cell& c, std::size_t i, Spot spot) {
    for (const Direction direction : half_of_directions) {
      const Cell* other = link(c, direction).cell();
      if (other == nullptr) continue;
      const Spot there{view.column(other->x), view.row(other->y)};
      const double length =
          std::max(std::abs(there.column - spot.column), std::abs(there.row - spot.row));
      const Colour colour = look.cells
                                ? paper(look.dark)
                                : colour_of(shade_of_link(shade, look, c, i, *other), look.dark);
      draw_line(canvas, spot, there, line_width(length, look.sharpness), colour,
                look.cells ? 0.55 : 0.9);
    }
  });
}

/// Where there is room for them.
void draw_dots(const Stage& stage, const Look& look, const View& view, Canvas& canvas) {
  const Shade shade(stage, look);
  constexpr double least_room = 9.0;
  for_each_seen(stage, view, [&](const Cell& c, std::size_t i, Spot spot) {
    const double spacing = stage.mesh->spacing_of_level(c.level) * view.scale / look.sharpness;
    if (spacing < least_room) return;
    draw_dot(canvas, spot, look.sharpness * std::min(0.8 + 0.06 * spacing, 4.5),
             colour_of(shade(c, i), look.dark), 1.0);
  });
}

}  // namespace

void draw(const Stage& stage, const Look& look, const View& view, Canvas& canvas) {
  canvas.width = view.width;
  canvas.height = view.height;
  canvas.pixels.assign(static_cast<std::size_t>(view.width) * static_cast<std::size_t>(view.height),
                       0);
  const Mesh& mesh = *stage.mesh;
  const std::array<Spot, 4> corners = {{{view.column(mesh.x_min()), view.row(mesh.y_min())},
                                        {view.column(mesh.x_max()), view.row(mesh.y_min())},
                                        {view.column(mesh.x_max()), view.row(mesh.y_max())},
                                        {view.column(mesh.x_min()), view.row(mesh.y_max())}}};
  fill_convex(canvas, corners.data(), 4, paper(look.dark));
  if (look.cells) draw_cells(stage, look, view, canvas);
  if (look.links) draw_links(stage, look, view, canvas);
  if (look.links && !look.cells) draw_dots(stage, look, view, canvas);
  if (look.mark_coarse) {
    for_each_seen(stage, view, [&](const Cell&, std::size_t i, Spot spot) {
      if (std::signbit(stage.wanted[i])) {
        draw_dot(canvas, spot, 2.4 * look.sharpness, coarse_mark, 0.95);
      }
    });
  }
  for (std::size_t k = 0; k < 4; ++k) {
    draw_line(canvas, corners[k], corners[(k + 1) % 4], 1.2 * look.sharpness, ink(look.dark), 0.55);
  }
}

void draw_node(const Stage& stage, const Cell& node, const Look& look, const View& view,
               Canvas& canvas) {
  const CellPolygon polygon = stage.mesh->polygon(node);
  const Spot middle{view.column(node.x), view.row(node.y)};
  const Colour colour = ink(look.dark);
  for (std::int32_t k = 0; k < polygon.n; ++k) {
    const Point a = polygon.corners[static_cast<std::size_t>(k)],
                b = polygon.corners[static_cast<std::size_t>(k + 1 == polygon.n ? 0 : k + 1)];
    draw_line(canvas, {view.column(a.x), view.row(a.y)}, {view.column(b.x), view.row(b.y)},
              2.2 * look.sharpness, colour, 0.9);
  }
  for (const Direction direction : directions) {
    const Cell* other = link(node, direction).cell();
    if (other == nullptr) continue;
    const Spot there{view.column(other->x), view.row(other->y)};
    draw_line(canvas, middle, there, 1.2 * look.sharpness, colour, 0.75);
    draw_dot(canvas, there, 2.2 * look.sharpness, colour, 0.9);
  }
  draw_dot(canvas, middle, 3.4 * look.sharpness, colour, 1.0);
}

}  // namespace velmar_2d::page
