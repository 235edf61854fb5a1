#include "tools/size_field.hpp"

#include <muParser.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cmath>
#include <filesystem>
#include <numbers>
#include <utility>
#include <vector>

#include "tools/lines.hpp"

namespace velmar_2d::tools {
namespace {

using Spacing = std::function<double(double x, double y)>;

Spacing between(const FieldOptions& options, Spacing spacing) {
  if (!options.finest && !options.coarsest) return spacing;
  return [spacing = std::move(spacing), finest = options.finest.value_or(0.0),
          coarsest = options.coarsest.value_or(HUGE_VAL)](double x, double y) {
    return std::max(finest, std::min(coarsest, spacing(x, y)));
  };
}

// ---------------------------------------------------------------------------------------------
// Expressions
// ---------------------------------------------------------------------------------------------

/// A parser keeps references to its variables: both live together and never move.
struct Expression {
  double x = 0.0, y = 0.0;
  mu::Parser parser;
};

std::string read_expression(const FieldOptions& options, SizeField& field) {
  auto expression = std::make_shared<Expression>();
  try {
    mu::Parser& parser = expression->parser;
    parser.DefineVar("x", &expression->x);
    parser.DefineVar("y", &expression->y);
    parser.DefineConst("pi", std::numbers::pi);
    parser.DefineFun("hypot", [](double a, double b) { return std::hypot(a, b); });
    parser.SetExpr(options.text);
    parser.Eval();
    if (parser.GetNumResults() != 1)
      return "expression \"" + options.text + "\": more than one value";
  } catch (const mu::Parser::exception_type& error) {
    std::string reason = error.GetMsg();
    std::replace(reason.begin(), reason.end(), '\n', ' ');
    return "expression \"" + options.text + "\": " + reason;
  }
  field.make = [expression, options](const Domain&, double) {
    return between(options, [expression](double x, double y) {
      expression->x = x;
      expression->y = y;
      return expression->parser.Eval();
    });
  };
  return {};
}

// ---------------------------------------------------------------------------------------------
// Pictures
// ---------------------------------------------------------------------------------------------

std::string read_picture(const FieldOptions& options, SizeField& field) {
  auto picture = std::make_shared<io::Image>();
  if (std::string error = io::read_png(options.text, *picture, options.max_pixels);
      !error.empty()) {
    const bool is_too_large = error.ends_with("more than " + std::to_string(options.max_pixels));
    return error + (is_too_large ? "; --max-pixels raises the limit" : "");
  }
  field.picture = picture;
  field.domain = {0.0, static_cast<double>(picture->width), 0.0,
                  static_cast<double>(picture->height)};
  field.make = [picture, options](const Domain& domain, double finest) -> Spacing {
    // The picture fills the domain. Its pixels need not be squares then; the wider side counts.
    const double pixel =
        std::max(domain.width() / picture->width, domain.height() / picture->height);
    auto spacing = std::make_shared<std::vector<double>>(io::spacing_of_pixels(
        *picture, options.finest.value_or(std::max(finest, pixel)) / pixel, options.contrast));
    return between(options, [=](double x, double y) {
      const auto place = [](double share, int count) {
        return static_cast<std::size_t>(std::clamp(share * count, 0.0, count - 1.0));
      };
      const std::size_t column = place((x - domain.west) / domain.width(), picture->width);
      const std::size_t row = place((domain.north - y) / domain.height(), picture->height);
      return pixel * (*spacing)[row * static_cast<std::size_t>(picture->width) + column];
    });
  };
  return {};
}

// ---------------------------------------------------------------------------------------------
// Points and lines
// ---------------------------------------------------------------------------------------------

std::string read_line_file(const FieldOptions& options, SizeField& field) {
  Lines lines;
  if (std::string error = read_lines(options.text, options.scattered, lines); !error.empty()) {
    return error;
  }
  auto tree = std::make_shared<DistanceTree>(std::move(lines));
  const DistanceTree::Box& box = tree->bounds();
  constexpr double rim = 0.1;  // of the larger side, left free around
  double margin = rim * std::max(box.east - box.west, box.north - box.south);
  if (!(margin > 0.0)) margin = 0.5;  // one single point: a square around it
  field.domain = {box.west - margin, box.east + margin, box.south - margin, box.north + margin};
  field.make = [tree, options](const Domain&, double finest) {
    return between(options, [tree, grading = options.grading,
                             least = options.finest.value_or(finest)](double x, double y) {
      return std::max(least, grading * tree->distance({x, y}));
    });
  };
  return {};
}

/// Something with an ending that no expression has, such as "bay.geojsn".
bool looks_like_a_file(const std::string& text, const std::string& extension) {
  const auto is_letter = [](char c) { return std::isalpha(static_cast<unsigned char>(c)) != 0; };
  return (extension.size() > 1 && is_letter(extension[1])) || std::filesystem::exists(text);
}

}  // namespace

std::string read_field(const FieldOptions& options, SizeField& field) {
  static constexpr std::array<const char*, 6> line_files = {".geojson", ".json", ".txt",
                                                            ".csv",     ".dat",  ".xy"};
  const std::string extension = extension_of(options.text);
  if (extension == ".png") return read_picture(options, field);
  if (std::find(line_files.begin(), line_files.end(), extension) != line_files.end()) {
    return read_line_file(options, field);
  }
  std::string error = read_expression(options, field);
  if (error.empty() || !looks_like_a_file(options.text, extension)) return error;
  std::string kinds = ".png";
  for (const char* kind : line_files) kinds += std::string(", ") + kind;
  return options.text + ": no expression, and no kind of file that is read (" + kinds + ")";
}

}  // namespace velmar_2d::tools
