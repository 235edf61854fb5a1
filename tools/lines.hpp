// Points and lines from files, and how far away they are.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "velmar_2D/records.hpp"

namespace velmar_2d::tools {

/// A straight piece of a line; a single point is one with equal ends.
struct Segment {
  Point a, b;
};

/// Reads a GeoJSON file (.json, .geojson) or a plain text file.
///
/// GeoJSON: all geometries of all features; positions are taken as x and y. Text: two numbers a
/// line, apart by blanks, a comma or a semicolon; what follows a third one is ignored, as is a line
/// that begins with #. An empty line ends a line of points.
///
/// @param scattered  the points of a text file are not joined by lines
/// @param segments   receives at least one segment
/// @return nothing on success; otherwise one line: the file, where possible the place, the reason
std::string read_lines(const std::string& path, bool scattered, std::vector<Segment>& segments);

/// Answers how far points are from the nearest of many segments.
class DistanceTree {
 public:
  /// Needs at least one segment.
  explicit DistanceTree(std::vector<Segment> segments);

  /// Distance to the nearest segment. Cost: about the logarithm of their number.
  double distance(Point p) const;

  struct Box {
    double west, east, south, north;
  };
  const Box& bounds() const { return nodes_.front().box; }

 private:
  struct Node {
    Box box;
    std::uint32_t first, count;  ///< leaf: its segments; inner node (count 0): `first` is one
                                 ///< child, the other one follows the node itself
  };
  void build(std::uint32_t first, std::uint32_t count);

  std::vector<Segment> segments_;
  std::vector<Node> nodes_;
};

}  // namespace velmar_2d::tools
