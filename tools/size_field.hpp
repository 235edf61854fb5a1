// Wanted spacings: from an expression, a picture, or a file of points and lines.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "velmar_2D/velmar_2D_io.hpp"

namespace velmar_2d::tools {

/// The rectangle that is meshed.
struct Domain {
  double west = 0.0, east = 1.0, south = 0.0, north = 1.0;
  double width() const { return east - west; }
  double height() const { return north - south; }
};

struct FieldOptions {
  std::string text;  ///< an expression or the name of a file
  std::optional<double> finest, coarsest;
  double grading = 0.25, contrast = 10.0;
  bool scattered = false;
  std::int64_t max_pixels = 64'000'000;
};

/// What is wanted where.
struct SizeField {
  /// Where the field has something to say, before the user's own wish.
  Domain domain;
  /// Makes the wanted spacing once domain and base spacing are known. `finest` is the spacing that
  /// the limit allows.
  std::function<std::function<double(double x, double y)>(const Domain& domain, double finest)>
      make;
  std::shared_ptr<const io::Image> picture;  ///< where the field comes from one
};

/// Reads the field that the options name.
/// @return nothing on success; otherwise one line
std::string read_field(const FieldOptions& options, SizeField& field);

}  // namespace velmar_2d::tools
