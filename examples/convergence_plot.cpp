#include "convergence_plot.hpp"

#include <cairo.h>

#include <cmath>
#include <cstdio>

double observed_order(std::span<const ErrorOfSpacing> points) {
  double x = 0.0, y = 0.0, xx = 0.0, xy = 0.0;
  const auto n = static_cast<double>(points.size());
  for (const ErrorOfSpacing& p : points) {
    x += std::log(p.spacing) / n;
    y += std::log(p.error) / n;
  }
  for (const ErrorOfSpacing& p : points) {
    const double dx = std::log(p.spacing) - x;
    xx += dx * dx;
    xy += dx * (std::log(p.error) - y);
  }
  return xy / xx;
}

std::string draw_convergence(const std::string& path, std::span<const ErrorOfSpacing> points) {
  constexpr double width = 480.0, height = 560.0, decade = 220.0;
  const ErrorOfSpacing& first = points.front();
  const double right = width - 110.0, top = 70.0;
  const auto column = [&](double spacing) {
    return right + decade * std::log10(spacing / first.spacing);
  };
  const auto row = [&](double error) { return top - decade * std::log10(error / first.error); };

  cairo_surface_t* surface = cairo_image_surface_create(CAIRO_FORMAT_RGB24, static_cast<int>(width),
                                                        static_cast<int>(height));
  cairo_t* pen = cairo_create(surface);
  cairo_set_source_rgb(pen, 1.0, 1.0, 1.0);
  cairo_paint(pen);
  cairo_set_font_size(pen, 13.0);
  const auto write = [&](double at, double down, const std::string& text) {
    cairo_move_to(pen, at, down);
    cairo_show_text(pen, text.c_str());
  };

  cairo_set_source_rgb(pen, 0.6, 0.62, 0.66);
  cairo_set_line_width(pen, 1.0);
  const double finest = points.back().spacing;
  for (const int order : {1, 2}) {
    const double error = first.error * std::pow(finest / first.spacing, order);
    cairo_move_to(pen, column(first.spacing), row(first.error));
    cairo_line_to(pen, column(finest), row(error));
    cairo_stroke(pen);
    write(column(finest) - 55.0, row(error) + 4.0, "order " + std::to_string(order));
  }

  cairo_set_source_rgb(pen, 0.16, 0.37, 0.58);
  for (const ErrorOfSpacing& p : points) {
    cairo_arc(pen, column(p.spacing), row(p.error), 5.0, 0.0, 2.0 * std::acos(-1.0));
    cairo_fill(pen);
    char label[64];
    std::snprintf(label, sizeof label, "%.1e", p.error);
    write(column(p.spacing) + 9.0, row(p.error) + 16.0, label);
    std::snprintf(label, sizeof label, "1/%.0f", 1.0 / p.spacing);
    write(column(p.spacing) - 12.0, height - 20.0, label);
  }
  cairo_set_source_rgb(pen, 0.13, 0.15, 0.20);
  write(20.0, 30.0, "error of the temperature over the spacing of the coarse half");
  const cairo_status_t status = cairo_surface_write_to_png(surface, path.c_str());
  cairo_destroy(pen);
  cairo_surface_destroy(surface);
  return status == CAIRO_STATUS_SUCCESS ? "" : path + ": " + cairo_status_to_string(status);
}
