#include "page/scene.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <tuple>
#include <utility>

namespace velmar_2d::page {
namespace {

/// What is wrong with the value of a key.
struct Fault {
  std::string reason;
};

int digit_of_hex(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  throw Fault{"a % without two hexadecimal digits"};
}

std::string decode(std::string_view text) {
  std::string decoded;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      decoded += text[i];
      continue;
    }
    if (i + 2 >= text.size()) throw Fault{"a % without two hexadecimal digits"};
    decoded += static_cast<char>(16 * digit_of_hex(text[i + 1]) + digit_of_hex(text[i + 2]));
    i += 2;
  }
  return decoded;
}

/// The number of a character among the 64 that stand in addresses as they are.
int digit_of_64(char c) {
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= 'a' && c <= 'z') return c - 'a' + 26;
  if (c >= '0' && c <= '9') return c - '0' + 52;
  if (c == '-') return 62;
  if (c == '_') return 63;
  throw Fault{"a character that has no place there"};
}

double number(std::string_view text, double lowest, double highest) {
  const std::string whole(text);
  char* end = nullptr;
  const double value = std::strtod(whole.c_str(), &end);
  if (whole.empty() || end != whole.c_str() + whole.size() || !std::isfinite(value)) {
    throw Fault{"\"" + whole + "\" is not a number"};
  }
  if (value < lowest || value > highest) {
    const auto bound = [](double limit) {
      std::string digits = std::to_string(limit);
      digits.erase(digits.find_last_not_of('0') + 1);
      if (digits.back() == '.') digits.pop_back();
      return digits;
    };
    throw Fault{whole + " is not between " + bound(lowest) + " and " + bound(highest)};
  }
  return value;
}

int whole_number(std::string_view text, int lowest, int highest) {
  const double value = number(text, lowest, highest);
  if (value != std::floor(value)) throw Fault{std::string(text) + " is not a whole number"};
  return static_cast<int>(value);
}

template <typename Choice, std::size_t n>
Choice one_of(std::string_view text,
              const std::array<std::pair<std::string_view, Choice>, n>& choices) {
  std::string names;
  for (const auto& [name, choice] : choices) {
    if (name == text) return choice;
    names += (names.empty() ? "" : ", ") + std::string(name);
  }
  throw Fault{"\"" + std::string(text) + "\" is none of " + names};
}

constexpr std::array<std::pair<std::string_view, Field>, 7> fields = {
    {{"pointer", Field::pointer},
     {"ring", Field::ring},
     {"front", Field::front},
     {"curve", Field::curve},
     {"expression", Field::expression},
     {"picture", Field::picture},
     {"waves", Field::waves}}};
constexpr std::array<std::pair<std::string_view, Method>, 2> methods = {
    {{"resolve", Method::resolve}, {"update", Method::update}}};

/// "24x16" or "96x64.": two whole numbers; what follows them stays in `text`.
std::pair<int, int> two_numbers(std::string_view& text, int lowest, int highest) {
  const std::size_t cross = text.find('x');
  if (cross == std::string_view::npos) throw Fault{"two numbers with an x between are needed"};
  const std::size_t end = std::min(text.find('.'), text.size());
  if (end < cross) throw Fault{"two numbers with an x between are needed"};
  const std::pair<int, int> both = {
      whole_number(text.substr(0, cross), lowest, highest),
      whole_number(text.substr(cross + 1, end - cross - 1), lowest, highest)};
  text.remove_prefix(std::min(end + 1, text.size()));
  return both;
}

/// Strokes apart by points; two characters for each coordinate, in parts of 1024.
void read_curve(std::string_view text, Scene& scene) {
  const auto coordinate = [&](std::size_t i) {
    return (64 * digit_of_64(text[i]) + digit_of_64(text[i + 1])) / 1024.0;
  };
  for (std::size_t i = 0; i < text.size();) {
    if (text[i] == '.') {
      scene.stroke_ends.push_back(scene.points.size());
      ++i;
      continue;
    }
    if (i + 4 > text.size()) throw Fault{"the last point is cut off"};
    if (scene.points.size() == most_points) throw Fault{"more than 2000 points"};
    scene.points.push_back({coordinate(i), coordinate(i + 2)});
    i += 4;
  }
  scene.stroke_ends.push_back(scene.points.size());
}

/// One character for each pixel.
void read_picture(std::string_view text, Scene& scene) {
  Picture picture;
  std::tie(picture.width, picture.height) = two_numbers(text, 2, most_pixels);
  if (picture.width > most_pixels / picture.height) throw Fault{"more than 20000 pixels"};
  if (text.size() !=
      static_cast<std::size_t>(picture.width) * static_cast<std::size_t>(picture.height)) {
    throw Fault{std::to_string(text.size()) + " pixels where " + std::to_string(picture.width) +
                " x " + std::to_string(picture.height) + " are needed"};
  }
  for (const char c : text) {
    picture.grey.push_back(static_cast<std::uint8_t>(digit_of_64(c) * 255 / 63));
  }
  scene.picture = std::move(picture);
}

/// "12:0.5:0.25,40:0.1:0.9": frame, x, y.
void read_sparks(std::string_view text, Scene& scene) {
  while (!text.empty()) {
    if (scene.sparks.size() == most_sparks) throw Fault{"more than 100 sparks"};
    const std::string_view spark = text.substr(0, text.find(','));
    text.remove_prefix(std::min(spark.size() + 1, text.size()));
    const std::size_t first = spark.find(':'), second = spark.rfind(':');
    if (first == second) throw Fault{"frame:x:y is needed"};
    scene.sparks.push_back({whole_number(spark.substr(0, first), 0, last_frame),
                            number(spark.substr(first + 1, second - first - 1), 0.0, 4.0),
                            number(spark.substr(second + 1), 0.0, 4.0)});
  }
}

void read_value(std::string_view key, std::string_view text, Scene& scene) {
  if (key == "field") scene.field = one_of(text, fields);
  if (key == "method") scene.method = one_of(text, methods);
  if (key == "finest") scene.finest = number(text, 1e-6, 1.0);
  if (key == "slope") scene.slope = number(text, 0.01, 10.0);
  if (key == "limit") scene.limit = whole_number(text, 0, highest_limit);
  if (key == "most_nodes") {
    scene.most_nodes = whole_number(text, 5000, static_cast<int>(most_nodes_of_all));
  }
  if (key == "frame") scene.frame = whole_number(text, 0, last_frame);
  if (key == "x") scene.x = number(text, -100.0, 100.0);
  if (key == "y") scene.y = number(text, -100.0, 100.0);
  if (key == "squares") std::tie(scene.columns, scene.rows) = two_numbers(text, 2, most_squares);
  if (key == "expression") {
    scene.expression = decode(text);
    if (scene.expression.size() > longest_expression) throw Fault{"more than 500 characters"};
  }
  if (key == "curve") read_curve(text, scene);
  if (key == "picture") read_picture(text, scene);
  if (key == "sparks") read_sparks(text, scene);
}

}  // namespace

std::string read_scene(std::string_view address, Scene& scene) {
  scene = {};
  while (!address.empty()) {
    const std::string_view pair = address.substr(0, address.find('&'));
    address.remove_prefix(std::min(pair.size() + 1, address.size()));
    const std::size_t equals = std::min(pair.find('='), pair.size());
    const std::string_view key = pair.substr(0, equals);
    try {
      read_value(key, pair.substr(std::min(equals + 1, pair.size())), scene);
    } catch (const Fault& fault) {
      return std::string(key) + ": " + fault.reason;
    }
  }
  return {};
}

}  // namespace velmar_2d::page
