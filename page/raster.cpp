// Lines, dots and cells as pixels. A mesh has tens of thousands of short lines: that is quicker
// done here than handed to a drawing library, and every browser shows the same.
#include <algorithm>
#include <cmath>

#include "page/drawing.hpp"

namespace velmar_2d::page {
namespace {

std::uint32_t packed(const Colour& colour) {
  const auto byte = [](double c) { return static_cast<std::uint32_t>(std::nearbyint(c)); };
  return byte(colour[0]) | byte(colour[1]) << 8 | byte(colour[2]) << 16 | 0xff000000U;
}

/// @param part  of 256
void blend(std::uint32_t& pixel, std::uint32_t colour, std::uint32_t part) {
  if ((pixel >> 24) == 0) {  // on clear ground: the colour itself, as opaque as it covers
    if (part > 0) pixel = (colour & 0xffffffU) | std::min(part, 255U) << 24;
    return;
  }
  // Two channels at a time.
  constexpr std::uint32_t odd = 0x00ff00ffU;
  const std::uint32_t rest = 256 - part;
  const std::uint32_t red_blue = ((pixel & odd) * rest + (colour & odd) * part) >> 8 & odd;
  const std::uint32_t green =
      ((pixel >> 8 & 0xffU) * rest + (colour >> 8 & 0xffU) * part) & 0xff00U;
  pixel = (pixel & 0xff000000U) | red_blue | green;
}

/// The part of 0 .. size - 1 that lies within [from, to], clipped before it becomes an integer.
struct Range {
  Range(double from, double to, int size)
      : first(static_cast<int>(std::ceil(std::clamp(from, 0.0, size + 1.0)))),
        last(static_cast<int>(std::floor(std::clamp(to, -1.0, size - 1.0)))) {}
  int first, last;
};

std::size_t place(const Canvas& canvas, int column, int row) {
  return static_cast<std::size_t>(row) * static_cast<std::size_t>(canvas.width) +
         static_cast<std::size_t>(column);
}

}  // namespace

void fill_convex(Canvas& canvas, const Spot* corners, int n, const Colour& colour) {
  const std::uint32_t ink = packed(colour);
  double top = HUGE_VAL, bottom = -HUGE_VAL;
  for (int i = 0; i < n; ++i) {
    top = std::min(top, corners[i].row);
    bottom = std::max(bottom, corners[i].row);
  }
  const Range rows(top - 0.5, bottom - 0.5, canvas.height);
  for (int row = rows.first; row <= rows.last; ++row) {
    const double middle = row + 0.5;
    double left = HUGE_VAL, right = -HUGE_VAL;
    for (int i = 0; i < n; ++i) {
      const Spot &a = corners[i], &b = corners[i + 1 == n ? 0 : i + 1];
      if ((a.row <= middle) == (b.row <= middle)) continue;
      const double crossing = a.column + (b.column - a.column) * (middle - a.row) / (b.row - a.row);
      left = std::min(left, crossing);
      right = std::max(right, crossing);
    }
    const Range columns(left - 0.5, right - 0.5, canvas.width);
    if (columns.first > columns.last) continue;
    std::uint32_t* begin = canvas.pixels.data() + place(canvas, 0, row);
    std::fill(begin + columns.first, begin + columns.last + 1, ink);
  }
}

void draw_line(Canvas& canvas, Spot from, Spot to, double width, const Colour& colour,
               double opacity) {
  double along_columns = to.column - from.column, along_rows = to.row - from.row;
  const bool steep = std::abs(along_rows) > std::abs(along_columns);
  if (steep) {  // columns and rows change places
    std::swap(from.column, from.row);
    std::swap(to.column, to.row);
    std::swap(along_columns, along_rows);
  }
  if (along_columns < 0.0) {
    std::swap(from, to);
    along_columns = -along_columns;
    along_rows = -along_rows;
  }
  if (!(along_columns > 0.0)) return;
  const double slope = along_rows / along_columns;
  // Below one pixel a line grows paler rather than thinner.
  const double half = 0.5 * std::max(width, 1.0) * std::sqrt(1.0 + slope * slope) + 0.5;
  const double strength = 256.0 * opacity * std::min(width, 1.0);
  const std::uint32_t ink = packed(colour);
  const int columns = steep ? canvas.height : canvas.width;
  const int rows = steep ? canvas.width : canvas.height;
  const std::size_t down = steep ? 1 : static_cast<std::size_t>(canvas.width);
  const std::size_t right = steep ? static_cast<std::size_t>(canvas.width) : 1;
  // A pixel belongs to the line that begins in it, so that lines in a row do not overlap.
  const Range range(from.column - 0.5, std::ceil(to.column - 0.5) - 1.0, columns);
  double middle = from.row + (range.first + 0.5 - from.column) * slope - 0.5;
  const auto part_of = [&](int j) {
    return static_cast<std::uint32_t>(strength * std::min(1.0, half - std::abs(j - middle)));
  };
  std::uint32_t* begin = canvas.pixels.data() + static_cast<std::size_t>(range.first) * right;
  if (slope == 0.0) {  // as most are: row by row
    const Range across(middle - half, middle + half, rows);
    for (int j = across.first; j <= across.last; ++j) {
      const std::uint32_t part = part_of(j);
      std::uint32_t* pixel = begin + static_cast<std::size_t>(j) * down;
      for (int i = range.first; i <= range.last; ++i, pixel += right) blend(*pixel, ink, part);
    }
    return;
  }
  for (int i = range.first; i <= range.last; ++i, middle += slope, begin += right) {
    const Range across(middle - half, middle + half, rows);
    std::uint32_t* pixel = begin + static_cast<std::size_t>(std::max(across.first, 0)) * down;
    for (int j = across.first; j <= across.last; ++j, pixel += down) {
      blend(*pixel, ink, part_of(j));
    }
  }
}

void draw_dot(Canvas& canvas, Spot middle, double radius, const Colour& colour, double opacity) {
  const std::uint32_t ink = packed(colour);
  const double reach = radius + 0.5;
  const Range rows(middle.row - reach - 0.5, middle.row + reach - 0.5, canvas.height);
  const Range columns(middle.column - reach - 0.5, middle.column + reach - 0.5, canvas.width);
  for (int row = rows.first; row <= rows.last; ++row) {
    for (int column = columns.first; column <= columns.last; ++column) {
      const double x = column + 0.5 - middle.column, y = row + 0.5 - middle.row;
      const double cover = std::clamp(reach - std::sqrt(x * x + y * y), 0.0, 1.0);
      blend(canvas.pixels[place(canvas, column, row)], ink,
            static_cast<std::uint32_t>(256.0 * opacity * cover));
    }
  }
}

}  // namespace velmar_2d::page
