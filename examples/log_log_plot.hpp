// Lines over a plane in which every decade is as wide as it is high: a power law is a straight
// line, and its exponent the slope.
#pragma once

#include <string>
#include <vector>

class LogLogPlot {
 public:
  struct Colour {
    double red, green, blue;
  };
  struct Point {
    double x, y;  ///< both above 0
  };
  struct Line {
    std::string name;
    Colour colour;
    bool dashed;
    std::vector<Point> points;  ///< from the left or the right; the name goes to the last one
  };

  /// `decade`: width and height of a decade, in points.
  LogLogPlot(std::string title, std::string x_name, std::string y_name, double decade = 110.0)
      : title_(std::move(title)),
        x_name_(std::move(x_name)),
        y_name_(std::move(y_name)),
        decade_(decade) {}

  void add(Line line) { lines_.push_back(std::move(line)); }
  /// Writes an SVG file. Returns nothing on success, otherwise one line: the path and the reason.
  std::string draw(const std::string& path) const;

 private:
  std::string title_, x_name_, y_name_;
  double decade_;
  std::vector<Line> lines_;
};
