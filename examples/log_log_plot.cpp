#include "log_log_plot.hpp"

#include <cairo-svg.h>

#include <cmath>
#include <limits>

namespace {

constexpr double left = 80.0, right = 230.0, top = 60.0, bottom = 60.0;

void text(cairo_t* pen, double x, double y, const std::string& words, double align = 0.0) {
  cairo_text_extents_t size;
  cairo_text_extents(pen, words.c_str(), &size);
  cairo_move_to(pen, x - align * size.x_advance, y);
  cairo_show_text(pen, words.c_str());
}

std::string power_of_10(int exponent) {
  return exponent == 0 ? "1" : exponent == 1 ? "10" : "1e" + std::to_string(exponent);
}

}  // namespace

std::string LogLogPlot::draw(const std::string& path) const {
  // Whole decades around all points.
  const double infinity = std::numeric_limits<double>::infinity();
  double x_low = infinity, x_high = -infinity, y_low = infinity, y_high = -infinity;
  for (const Line& line : lines_) {
    for (const auto& [x, y] : line.points) {
      x_low = std::min(x_low, std::floor(std::log10(x)));
      x_high = std::max(x_high, std::ceil(std::log10(x)));
      y_low = std::min(y_low, std::floor(std::log10(y)));
      y_high = std::max(y_high, std::ceil(std::log10(y)));
    }
  }
  const double decade = decade_;
  const double width = (x_high - x_low) * decade, height = (y_high - y_low) * decade;
  cairo_surface_t* surface =
      cairo_svg_surface_create(path.c_str(), left + width + right, top + height + bottom);
  cairo_t* pen = cairo_create(surface);
  const auto column = [&](double x) { return left + (std::log10(x) - x_low) * decade; };
  const auto row = [&](double y) { return top + (y_high - std::log10(y)) * decade; };

  cairo_set_source_rgb(pen, 1.0, 1.0, 1.0);
  cairo_paint(pen);
  cairo_select_font_face(pen, "sans-serif", CAIRO_FONT_SLANT_NORMAL, CAIRO_FONT_WEIGHT_NORMAL);
  cairo_set_font_size(pen, 13.0);
  cairo_set_line_width(pen, 1.0);
  for (int i = static_cast<int>(x_low); i <= static_cast<int>(x_high); ++i) {
    const double at = column(std::pow(10.0, i));
    cairo_set_source_rgb(pen, 0.86, 0.87, 0.90);
    cairo_move_to(pen, at, top);
    cairo_line_to(pen, at, top + height);
    cairo_stroke(pen);
    cairo_set_source_rgb(pen, 0.13, 0.15, 0.20);
    text(pen, at, top + height + 20.0, power_of_10(i), 0.5);
  }
  for (int i = static_cast<int>(y_low); i <= static_cast<int>(y_high); ++i) {
    const double at = row(std::pow(10.0, i));
    cairo_set_source_rgb(pen, 0.86, 0.87, 0.90);
    cairo_move_to(pen, left, at);
    cairo_line_to(pen, left + width, at);
    cairo_stroke(pen);
    cairo_set_source_rgb(pen, 0.13, 0.15, 0.20);
    text(pen, left - 10.0, at + 5.0, power_of_10(i), 1.0);
  }
  text(pen, left + width / 2.0, top + height + 45.0, x_name_, 0.5);
  text(pen, left - 10.0, top - 12.0, y_name_, 1.0);
  cairo_set_font_size(pen, 18.0);
  text(pen, left, 30.0, title_);

  cairo_set_font_size(pen, 13.0);
  cairo_set_line_width(pen, 2.0);
  double name_row = top + 12.0;
  for (const Line& line : lines_) {
    cairo_set_source_rgb(pen, line.colour.red, line.colour.green, line.colour.blue);
    const double dashes[] = {5.0, 4.0};
    cairo_set_dash(pen, dashes, line.dashed ? 2 : 0, 0.0);
    cairo_new_path(pen);  // text leaves a point behind
    for (const auto& [x, y] : line.points) cairo_line_to(pen, column(x), row(y));
    cairo_stroke(pen);
    cairo_move_to(pen, left + width + 15.0, name_row - 4.0);
    cairo_line_to(pen, left + width + 45.0, name_row - 4.0);
    cairo_stroke(pen);
    cairo_set_dash(pen, dashes, 0, 0.0);
    text(pen, left + width + 52.0, name_row, line.name);
    name_row += 22.0;
    for (const auto& [x, y] : line.points) {
      cairo_new_path(pen);
      cairo_arc(pen, column(x), row(y), 3.0, 0.0, 6.3);
      cairo_fill(pen);
    }
  }

  cairo_destroy(pen);
  cairo_surface_finish(surface);
  const cairo_status_t status = cairo_surface_status(surface);
  cairo_surface_destroy(surface);
  return status == CAIRO_STATUS_SUCCESS ? "" : path + ": " + cairo_status_to_string(status);
}
