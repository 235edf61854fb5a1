#include "io/palette.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>

namespace velmar_2d::io {
namespace {

// Oklab: equal distances look equally far apart. Matrices from B. Ottosson, "A perceptual color
// space for image processing", 2020.
struct Oklab {
  double lightness, a, b;
};

double to_srgb(double linear) {
  const double value =
      linear <= 0.0031308 ? 12.92 * linear : 1.055 * std::pow(linear, 1.0 / 2.4) - 0.055;
  return std::clamp(value, 0.0, 1.0);
}

Colour to_colour(const Oklab& lab) {
  const double l = std::pow(lab.lightness + 0.3963377774 * lab.a + 0.2158037573 * lab.b, 3);
  const double m = std::pow(lab.lightness - 0.1055613458 * lab.a - 0.0638541728 * lab.b, 3);
  const double s = std::pow(lab.lightness - 0.0894841775 * lab.a - 1.2914855480 * lab.b, 3);
  return {to_srgb(4.0767416621 * l - 3.3077115913 * m + 0.2309699292 * s),
          to_srgb(-1.2684380046 * l + 2.6097574011 * m - 0.3413193965 * s),
          to_srgb(-0.0041960863 * l - 0.7034186147 * m + 1.7076147010 * s)};
}

constexpr double degree = 3.14159265358979323846 / 180.0;

// Lightness, chroma and hue (degrees) of the stops of the scale, evenly spaced.
struct Stop {
  double lightness, chroma, hue;
};
using Stops = std::array<Stop, 5>;
constexpr Stops calm_stops = {{{0.80, 0.115, 95.0},
                               {0.71, 0.125, 155.0},
                               {0.60, 0.105, 215.0},
                               {0.48, 0.155, 275.0},
                               {0.40, 0.190, 325.0}}};
constexpr Stops grey_stops = {
    {{0.88, 0.0, 0.0}, {0.74, 0.0, 0.0}, {0.60, 0.0, 0.0}, {0.46, 0.0, 0.0}, {0.32, 0.0, 0.0}}};
constexpr Stops two_way_stops = {{{0.42, 0.160, 260.0},
                                  {0.68, 0.110, 265.0},
                                  {0.94, 0.012, 322.0},
                                  {0.70, 0.120, 380.0},
                                  {0.47, 0.170, 387.0}}};

const Stops& stops_of(Palette palette) {
  switch (palette) {
    case Palette::grey: return grey_stops;
    case Palette::two_way: return two_way_stops;
    default: return calm_stops;
  }
}

}  // namespace

Colour on_scale(double value, Palette palette) {
  const Stops& stops = stops_of(palette);
  const auto last = static_cast<double>(stops.size() - 1);
  const double place = std::clamp(value, 0.0, 1.0) * last;
  const double whole = std::min(std::floor(place), last - 1.0);
  const double part = place - whole;
  const Stop& from = stops[static_cast<std::size_t>(whole)];
  const Stop& to = stops[static_cast<std::size_t>(whole) + 1];
  const double chroma = std::lerp(from.chroma, to.chroma, part);
  const double hue = std::lerp(from.hue, to.hue, part) * degree;
  return to_colour({std::lerp(from.lightness, to.lightness, part), chroma * std::cos(hue),
                    chroma * std::sin(hue)});
}

Colour on_wheel(int i, int n) {
  const double hue = 360.0 * degree * (i - 1) / n;
  return to_colour({0.78, 0.11 * std::cos(hue), 0.11 * std::sin(hue)});
}

Colour level_colour(int level, int lowest, int highest, Palette palette) {
  const double place =
      highest <= lowest ? 0.6 : static_cast<double>(level - lowest) / (highest - lowest);
  return on_scale(place, palette);
}

}  // namespace velmar_2d::io
