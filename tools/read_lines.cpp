#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>
#include <string_view>

#include "tools/lines.hpp"

namespace velmar_2d::tools {
namespace {

using Json = nlohmann::json;

/// What is wrong with the content of a file.
struct Fault {
  std::string reason;
};

/// Joins points by segments as they come.
class LineBuilder {
 public:
  explicit LineBuilder(std::vector<Segment>& segments) : segments_(segments) {}

  void add(Point point) {
    if (is_single_) segments_.pop_back();
    is_single_ = !last_.has_value();
    segments_.push_back({last_.value_or(point), point});
    last_ = point;
  }
  void end_line() {
    last_.reset();
    is_single_ = false;
  }

 private:
  std::vector<Segment>& segments_;
  std::optional<Point> last_;
  bool is_single_ = false;  // the last segment stands for a point that no other has followed yet
};

// ---------------------------------------------------------------------------------------------
// Plain text
// ---------------------------------------------------------------------------------------------

std::string_view without_separators(std::string_view text) {
  const std::size_t begin = text.find_first_not_of(" \t\r,;");
  return begin == std::string_view::npos ? std::string_view{} : text.substr(begin);
}

/// Takes a number off the front of a text.
std::optional<double> take_number(std::string_view& text) {
  text = without_separators(text);
  if (text.starts_with('+')) text.remove_prefix(1);
  double value = 0.0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc{} || !std::isfinite(value)) return std::nullopt;
  text.remove_prefix(static_cast<std::size_t>(end - text.data()));
  if (!text.empty() && std::strchr(" \t\r,;", text.front()) == nullptr) return std::nullopt;
  return value;
}

void read_text(std::istream& file, bool scattered, std::vector<Segment>& segments) {
  LineBuilder builder(segments);
  std::string line;
  for (long number = 1; std::getline(file, line); ++number) {
    std::string_view rest = without_separators(line);
    if (rest.empty()) builder.end_line();
    if (rest.empty() || rest.front() == '#') continue;
    const std::optional<double> x = take_number(rest), y = take_number(rest);
    if (!x || !y) throw Fault{"line " + std::to_string(number) + ": two numbers are wanted"};
    builder.add({*x, *y});
    if (scattered) builder.end_line();
  }
}

// ---------------------------------------------------------------------------------------------
// GeoJSON
// ---------------------------------------------------------------------------------------------

Point point_of(const Json& position) {
  if (!position.is_array() || position.size() < 2 || !position[0].is_number() ||
      !position[1].is_number()) {
    throw Fault{"a position is no pair of numbers"};
  }
  return {position[0].get<double>(), position[1].get<double>()};
}

/// `depth` is the number of arrays around a line of positions; 0 for a line, -1 for one position.
void read_coordinates(const Json& coordinates, int depth, bool joined, LineBuilder& builder) {
  if (depth < 0) return builder.add(point_of(coordinates));
  if (!coordinates.is_array()) throw Fault{"coordinates are missing"};
  for (const Json& part : coordinates) {
    read_coordinates(part, depth - 1, joined, builder);
    if (depth > 0 || !joined) builder.end_line();
  }
  builder.end_line();
}

/// Collections may lie in one another; no honest file goes deeper than this.
constexpr int deepest_collection = 32;

void read_geometry(const Json& object, LineBuilder& builder, int depth = 0) {
  struct Kind {
    std::string_view type;
    int depth;
    bool joined;
  };
  static constexpr std::array<Kind, 6> kinds = {{{"Point", -1, true},
                                                 {"MultiPoint", 0, false},
                                                 {"LineString", 0, true},
                                                 {"MultiLineString", 1, true},
                                                 {"Polygon", 1, true},
                                                 {"MultiPolygon", 2, true}}};
  if (object.is_null()) return;  // a feature without a place
  if (!object.is_object() || depth > deepest_collection) throw Fault{"no GeoJSON object"};
  const std::string type = object.value("type", "");
  if (type == "Feature") {
    return read_geometry(object.value("geometry", Json{}), builder, depth + 1);
  }
  for (const char* list : {"features", "geometries"}) {
    if (!object.contains(list)) continue;
    for (const Json& member : object[list]) read_geometry(member, builder, depth + 1);
    return;
  }
  const auto* kind =
      std::find_if(kinds.begin(), kinds.end(), [&](const Kind& k) { return k.type == type; });
  if (kind == kinds.end()) throw Fault{"unknown GeoJSON type \"" + type + "\""};
  read_coordinates(object.value("coordinates", Json{}), kind->depth, kind->joined, builder);
  builder.end_line();
}

void read_geojson(std::istream& file, std::vector<Segment>& segments) {
  LineBuilder builder(segments);
  read_geometry(Json::parse(file), builder);
}

}  // namespace

std::string read_lines(const std::string& path, bool scattered, std::vector<Segment>& segments) {
  std::error_code no_status;
  if (std::filesystem::is_directory(path, no_status)) return path + ": Is a directory";
  std::ifstream file(path);
  if (!file) return path + ": " + std::strerror(errno);
  std::vector<Segment> found;
  try {
    const std::string extension = std::filesystem::path(path).extension().string();
    if (extension == ".json" || extension == ".geojson") {
      read_geojson(file, found);
    } else {
      read_text(file, scattered, found);
    }
  } catch (const Fault& fault) {
    return path + ": " + fault.reason;
  } catch (const Json::parse_error& error) {
    return path + ": no JSON from byte " + std::to_string(error.byte) + " on";
  } catch (const Json::exception&) {
    return path + ": not the structure of GeoJSON";
  }
  if (file.bad()) return path + ": " + std::strerror(errno);
  if (found.empty()) return path + ": there are no points in it";
  segments = std::move(found);
  return {};
}

}  // namespace velmar_2d::tools
