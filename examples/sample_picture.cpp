#include "sample_picture.hpp"

#include <cairo.h>

#include <array>
#include <cmath>
#include <cstddef>

namespace {

constexpr int width = 480, height = 360;
constexpr double horizon = 232.0, sun_x = 318.0, sun_y = 196.0, sun_radius = 54.0;

void paint_sky(cairo_t* pen) {
  cairo_pattern_t* sky = cairo_pattern_create_linear(0.0, 0.0, 0.0, horizon);
  cairo_pattern_add_color_stop_rgb(sky, 0.0, 0.13, 0.16, 0.36);
  cairo_pattern_add_color_stop_rgb(sky, 0.55, 0.62, 0.36, 0.50);
  cairo_pattern_add_color_stop_rgb(sky, 1.0, 0.98, 0.69, 0.42);
  cairo_set_source(pen, sky);
  cairo_rectangle(pen, 0.0, 0.0, width, horizon);
  cairo_fill(pen);
  cairo_pattern_destroy(sky);

  cairo_set_source_rgb(pen, 1.0, 0.95, 0.78);
  cairo_arc(pen, sun_x, sun_y, sun_radius, 0.0, 2.0 * std::acos(-1.0));
  cairo_fill(pen);
}

/// A ridge of hills: two waves over a base line, filled down to the horizon.
void paint_ridge(cairo_t* pen, double base, double swell, double phase, double grey) {
  cairo_set_source_rgb(pen, 0.9 * grey, 0.75 * grey, 1.1 * grey);
  cairo_move_to(pen, 0.0, horizon);
  for (int x = 0; x <= width; x += 4) {
    const double wave = std::sin(0.013 * x + phase) + 0.45 * std::sin(0.041 * x + 2.3 * phase);
    cairo_line_to(pen, x, base - swell * wave);
  }
  cairo_line_to(pen, width, horizon);
  cairo_fill(pen);
}

void paint_sea(cairo_t* pen) {
  cairo_pattern_t* sea = cairo_pattern_create_linear(0.0, horizon, 0.0, height);
  cairo_pattern_add_color_stop_rgb(sea, 0.0, 0.72, 0.50, 0.45);
  cairo_pattern_add_color_stop_rgb(sea, 1.0, 0.10, 0.14, 0.30);
  cairo_set_source(pen, sea);
  cairo_rectangle(pen, 0.0, horizon, width, height - horizon);
  cairo_fill(pen);
  cairo_pattern_destroy(sea);

  // The sun's path: glints that grow towards the shore.
  cairo_set_source_rgb(pen, 1.0, 0.86, 0.62);
  cairo_set_line_cap(pen, CAIRO_LINE_CAP_ROUND);
  for (int i = 0; i < 9; ++i) {
    const double y = horizon + 8.0 + 1.4 * i * i;
    const double half = (46.0 - 3.0 * i) * (i % 2 == 0 ? 1.0 : 0.6);
    const double shift = i % 3 == 0 ? 0.0 : (i % 3 == 1 ? 12.0 : -10.0);
    cairo_set_line_width(pen, 2.0 + 0.35 * i);
    cairo_move_to(pen, sun_x + shift - half, y);
    cairo_line_to(pen, sun_x + shift + half, y);
    cairo_stroke(pen);
  }
}

void paint_shape(cairo_t* pen, const std::array<std::array<double, 2>, 4>& corners, double red,
                 double green, double blue) {
  for (const auto& corner : corners) cairo_line_to(pen, corner[0], corner[1]);
  cairo_set_source_rgb(pen, red, green, blue);
  cairo_close_path(pen);
  cairo_fill(pen);
}

void paint_boat(cairo_t* pen) {
  paint_shape(pen, {{{98.0, 280.0}, {196.0, 280.0}, {178.0, 302.0}, {112.0, 302.0}}}, 0.09, 0.08,
              0.14);
  paint_shape(pen, {{{146.0, 148.0}, {146.0, 270.0}, {198.0, 270.0}, {180.0, 205.0}}}, 0.97, 0.93,
              0.86);
  paint_shape(pen, {{{141.0, 164.0}, {141.0, 270.0}, {100.0, 270.0}, {118.0, 214.0}}}, 0.83, 0.33,
              0.26);
  paint_shape(pen, {{{142.5, 142.0}, {144.5, 142.0}, {144.5, 282.0}, {142.5, 282.0}}}, 0.09, 0.08,
              0.14);
}

}  // namespace

std::string write_sample_picture(const std::string& path) {
  cairo_surface_t* surface = cairo_image_surface_create(CAIRO_FORMAT_RGB24, width, height);
  cairo_t* pen = cairo_create(surface);
  paint_sky(pen);
  paint_ridge(pen, 196.0, 22.0, 4.2, 0.42);
  paint_ridge(pen, 216.0, 13.0, 1.1, 0.24);
  paint_sea(pen);
  paint_boat(pen);
  cairo_destroy(pen);
  const cairo_status_t status = cairo_surface_write_to_png(surface, path.c_str());
  cairo_surface_destroy(surface);
  if (status == CAIRO_STATUS_SUCCESS) return {};
  return path + ": " + cairo_status_to_string(status);
}
