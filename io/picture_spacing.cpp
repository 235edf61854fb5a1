#include <algorithm>
#include <cmath>
#include <cstddef>
#include <utility>

#include "velmar_2D/velmar_2D_io.hpp"

namespace velmar_2d::io {
namespace {

/// How much the spacing grows for every pixel away from an edge.
constexpr double grading = 0.25;
/// A high power keeps soft shading coarse.
constexpr int faintness_power = 4;

/// Brightness of a pixel from 0 to 255, as the eye weighs the colours; clamped to the picture.
double brightness(const Image& image, int column, int row) {
  const std::uint32_t pixel =
      image.at(std::clamp(column, 0, image.width - 1), std::clamp(row, 0, image.height - 1));
  return 0.2126 * (pixel >> 16) + 0.7152 * (pixel >> 8 & 255) + 0.0722 * (pixel & 255);
}

/// One value a pixel.
struct Map {
  int width, height;
  std::vector<double> values;
  double& at(int column, int row) {
    return values[static_cast<std::size_t>(row) * static_cast<std::size_t>(width) +
                  static_cast<std::size_t>(column)];
  }
  bool has(int column, int row) const {
    return column >= 0 && column < width && row >= 0 && row < height;
  }
};

/// Limits a pixel to what four of its neighbours allow: the ones that a sweep has passed.
void limit_by_neighbours(Map& spacing, int column, int row, int step) {
  const auto limit_by = [&](int right, int down) {
    if (!spacing.has(column + right, row + down)) return;
    const double allowed =
        spacing.at(column + right, row + down) + grading * std::hypot(right, down);
    spacing.at(column, row) = std::min(spacing.at(column, row), allowed);
  };
  limit_by(-step, 0);
  limit_by(-1, -step);
  limit_by(0, -step);
  limit_by(1, -step);
}

}  // namespace

std::vector<double> spacing_of_pixels(const Image& image, double finest, double contrast) {
  Map spacing{image.width, image.height, std::vector<double>(image.pixels.size())};
  for (int row = 0; row < image.height; ++row) {
    for (int column = 0; column < image.width; ++column) {
      const double difference =
          std::hypot(brightness(image, column + 1, row) - brightness(image, column - 1, row),
                     brightness(image, column, row + 1) - brightness(image, column, row - 1));
      const double faintness = std::max(1.0, contrast / std::max(difference, 1e-9));
      spacing.at(column, row) = finest * std::pow(faintness, faintness_power);
    }
  }
  // One sweep to the lower right and one back carry the limits everywhere.
  for (int row = 0; row < image.height; ++row) {
    for (int column = 0; column < image.width; ++column) {
      limit_by_neighbours(spacing, column, row, 1);
    }
  }
  for (int row = image.height - 1; row >= 0; --row) {
    for (int column = image.width - 1; column >= 0; --column) {
      limit_by_neighbours(spacing, column, row, -1);
    }
  }
  return std::move(spacing.values);
}

}  // namespace velmar_2d::io
