// Points and lines from files, and how far away they are.
#pragma once

#include <cstdint>
#include <istream>
#include <string>
#include <vector>

#include "velmar_2D/records.hpp"

namespace velmar_2d::tools {

/// Lines of points, one after another. Kept small, since files may be large: 16 bytes and a bit for
/// each point.
class Lines {
 public:
  /// Makes room for so many points; what is not used stays untouched. Without, the memory is twice
  /// as much while they grow.
  void reserve(std::size_t most) { points_.reserve(most); }
  void add(Point point) {
    points_.push_back(point);
    is_first_.push_back(next_is_first_);
    next_is_first_ = false;
  }
  /// The next point is not joined to the last one.
  void end_line() { next_is_first_ = true; }
  /// Joins no point from number `begin` on to another one.
  void scatter(std::size_t begin);

  std::size_t size() const { return points_.size(); }
  const Point& operator[](std::size_t i) const { return points_[i]; }
  /// The points of lines of one point each may change places.
  std::vector<Point>& points() { return points_; }
  /// Whether a point is the first one of its line.
  bool is_first(std::size_t i) const { return is_first_[i]; }
  /// Whether a line consists of this point only.
  bool is_alone(std::size_t i) const {
    return is_first_[i] && (i + 1 == size() || is_first_[i + 1]);
  }

 private:
  std::vector<Point> points_;
  std::vector<bool> is_first_;
  bool next_is_first_ = true;
};

/// What is wrong with the content of a file.
struct Fault {
  std::string reason;
};

/// The ending of a file, in small letters, with its dot.
std::string extension_of(const std::string& path);

/// Reads a GeoJSON file (.json, .geojson) or a plain text file.
///
/// GeoJSON: all geometries of all features; positions are taken as x and y. Text: two numbers a
/// line, apart by blanks, a comma or a semicolon; what follows a third one is ignored, as is a line
/// that begins with #. An empty line ends a line of points. Takes less than five times the memory
/// that the file takes on the disk.
///
/// @param scattered  the points of a text file are not joined by lines
/// @param lines      receives at least one point
/// @return nothing on success; otherwise one line: the file, where possible the place, the reason
std::string read_lines(const std::string& path, bool scattered, Lines& lines);

/// Adds the points of a GeoJSON text as they come. Throws Fault.
void read_geojson(std::istream& text, Lines& lines);

/// Answers how far points are from the nearest of many lines.
class DistanceTree {
 public:
  /// Needs at least one point, and at most most_points.
  explicit DistanceTree(Lines lines);
  static constexpr std::size_t most_points = 0xffffffff;

  /// Distance to the nearest line. Cost: about the logarithm of the number of points.
  double distance(Point p) const;

  struct Box {
    double west, east, south, north;
  };
  const Box& bounds() const { return nodes_.front().box; }

 private:
  struct Segment {
    Point a, b;
  };
  struct Node {
    Box box;
    std::uint32_t first, count;  ///< leaf: its segments; inner node (count 0): `first` is one
                                 ///< child, the other one follows the node itself
  };
  Segment segment(std::uint32_t end) const;
  Segment segment_in_order(std::uint32_t i) const;
  void build(std::uint32_t first, std::uint32_t count);

  Lines lines_;
  /// The later point of each segment, leaf by leaf; empty where all points are alone, then they lie
  /// leaf by leaf themselves.
  std::vector<std::uint32_t> ends_;
  std::vector<Node> nodes_;
};

}  // namespace velmar_2d::tools
