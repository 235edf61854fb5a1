#include "fuzz/files.hpp"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <limits>
#include <nlohmann/json.hpp>
#include <vector>

#include "tools/lines.hpp"
#include "tools/size_field.hpp"

namespace velmar_2d::tests {
namespace {

using Json = nlohmann::json;
using Bytes = std::vector<std::uint8_t>;

/// Gives every block of a PNG file its right checksum: with a wrong one nothing else is looked at.
void mend_checksums(Bytes& png) {
  constexpr std::size_t mark = 8, head = 8, foot = 4;
  const auto number_at = [&](std::size_t place) {
    std::uint32_t number = 0;
    for (std::size_t i = place; i < place + 4; ++i) number = number << 8 | png[i];
    return number;
  };
  for (std::size_t block = mark; png.size() >= block + head + foot;) {
    const std::size_t length = number_at(block);
    if (length > png.size() - block - head - foot) return;
    std::uint32_t sum = 0xffffffff;
    const std::size_t end = block + head + length;
    for (std::size_t i = block + 4; i < end; ++i) {
      sum ^= png[i];
      for (int bit = 0; bit < 8; ++bit) sum = sum >> 1 ^ ((sum & 1) != 0 ? 0xedb88320 : 0);
    }
    for (std::size_t i = 0; i < 4; ++i)
      png[end + i] = static_cast<std::uint8_t>(~sum >> (24 - 8 * i));
    block = end + foot;
  }
}

/// All positions of a GeoJSON text, by way of the whole document.
void collect(const Json& value, std::vector<Point>& points) {
  if (value.is_array() && !value.empty() && value[0].is_number()) {
    points.push_back({value[0].get<double>(), value[1].get<double>()});
  } else if (value.is_array()) {
    for (const Json& part : value) collect(part, points);
  } else if (value.is_object()) {
    for (const char* content : {"geometry", "features", "geometries", "coordinates"}) {
      if (value.contains(content)) collect(value[content], points);
    }
  }
}

double distance(Point a, Point b, Point p) {
  const double length = std::hypot(b.x - a.x, b.y - a.y);
  if (length == 0.0) return std::hypot(p.x - a.x, p.y - a.y);
  const double along = std::clamp(
      ((p.x - a.x) * (b.x - a.x) + (p.y - a.y) * (b.y - a.y)) / length / length, 0.0, 1.0);
  return std::hypot(std::lerp(a.x, b.x, along) - p.x, std::lerp(a.y, b.y, along) - p.y);
}

std::string check_lines(const tools::Lines& lines, std::string_view reader, const Bytes& bytes) {
  if (reader == "geojson") {
    std::vector<Point> points;
    collect(Json::parse(bytes), points);
    const auto is_same = [](Point a, Point b) { return a.x == b.x && a.y == b.y; };
    if (!std::equal(points.begin(), points.end(), &lines[0], &lines[0] + lines.size(), is_same)) {
      return "other points than in the document";
    }
  }
  double largest = 0.0;
  for (std::size_t i = 0; i < lines.size(); ++i) {
    largest = std::max({largest, std::abs(lines[i].x), std::abs(lines[i].y)});
  }
  constexpr double without_overflow = 1e100, without_underflow = 1e-100;
  if (lines.size() > 1000 || largest > without_overflow || largest < without_underflow) return {};
  const tools::DistanceTree tree(lines);
  for (const double share : {0.0, 0.3, 1.7}) {
    const Point p{share * largest, (1.0 - share) * largest};
    double nearest = std::numeric_limits<double>::infinity();
    for (std::size_t i = 0; i < lines.size(); ++i) {
      const std::size_t before = lines.is_first(i) ? i : i - 1;
      nearest = std::min(nearest, distance(lines[before], lines[i], p));
    }
    if (!(std::abs(tree.distance(p) - nearest) <= 1e-6 * largest)) return "another distance";
  }
  return {};
}

}  // namespace

std::string run_reader(std::string_view reader, std::span<const std::uint8_t> input) {
  Bytes bytes(input.begin(), input.end());
  if (reader == "png") mend_checksums(bytes);
  tools::FieldOptions options;
  options.max_pixels = 1'000'000;
  if (reader == "expression") {
    options.text.assign(bytes.begin(), bytes.end());
    options.text += ' ';  // never the name of a file
  } else {
    const std::string extension = reader == "text" ? "txt" : std::string(reader);
    options.text = (std::filesystem::temp_directory_path() /
                    ("velmar_2d_" + std::to_string(getpid()) + "." + extension))
                       .string();
    std::ofstream(options.text, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
  }

  tools::SizeField field;
  std::string fault = tools::read_field(options, field);
  if (!fault.empty()) {
    const bool is_one_line = reader == "expression" ||
                             std::none_of(fault.begin(), fault.end(),
                                          [](unsigned char c) { return std::iscntrl(c) != 0; });
    fault = is_one_line ? "" : "more than one line: " + fault;
  } else {
    const auto wanted = field.make(field.domain, 1e-3);
    const tools::Domain& d = field.domain;
    for (const double share : {0.0, 0.4, 1.0}) {
      try {
        wanted(d.west + share * d.width(), d.south + share * d.height());
      } catch (const std::exception&) {
        if (reader != "expression") throw;  // an expression may fail anywhere
      }
    }
    tools::Lines lines;
    if ((reader == "geojson" || reader == "text") &&
        tools::read_lines(options.text, false, lines).empty()) {
      fault = check_lines(lines, reader, bytes);
    }
  }
  if (reader != "expression") std::filesystem::remove(options.text);
  return fault;
}

}  // namespace velmar_2d::tests
