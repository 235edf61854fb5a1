// What is to be shown, as the address of the page says it after its "#":
//
//     field=ring&finest=0.004&slope=0.25&limit=10&frame=40
//
// Keys that are not known, such as those of the view, are left to others.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "velmar_2D/records.hpp"

namespace velmar_2d::page {

enum class Field { pointer, ring, front, curve, expression, picture, waves };
enum class Method { resolve, update };

/// Grey pixels, row after row from the top, 0 to 255.
struct Picture {
  int width = 0, height = 0;
  std::vector<std::uint8_t> grey;
  friend bool operator==(const Picture&, const Picture&) = default;
};

/// Where and when somebody set off a wave.
struct Spark {
  int frame = 0;
  double x = 0.0, y = 0.0;
  friend bool operator==(const Spark&, const Spark&) = default;
};

struct Scene {
  int columns = 24, rows = 16;  ///< squares of the grid; each is a 16th wide
  Field field = Field::ring;
  Method method = Method::resolve;
  double finest = 0.004, slope = 0.25;  ///< wanted spacing, and how fast it grows with distance
  int limit = 12;                       ///< subdivision limit
  std::int64_t most_nodes = 200'000;
  int frame = 0;              ///< of what moves by itself
  double x = 0.5, y = 0.5;    ///< the pointer
  std::string expression;     ///< wanted spacing from x and y
  std::vector<Point> points;  ///< drawn strokes, one after the other
  std::vector<std::size_t> stroke_ends;
  Picture picture;
  std::vector<Spark> sparks;

  double width() const { return columns / 16.0; }
  double height() const { return rows / 16.0; }
};

inline constexpr int most_squares = 64;  // along a side
inline constexpr int highest_limit = 24;
inline constexpr std::int64_t most_nodes_of_all = 1'000'000;
inline constexpr int last_frame = 1'000'000;
inline constexpr std::size_t longest_expression = 500;
inline constexpr std::size_t most_points = 2000;
inline constexpr int most_pixels = 20'000;
inline constexpr std::size_t most_sparks = 100;

/// Reads an address; what it does not name keeps its default.
/// @return nothing on success; otherwise one line that names the key
std::string read_scene(std::string_view address, Scene& scene);

}  // namespace velmar_2d::page
