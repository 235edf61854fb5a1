// What pixels and SVG have in common: which nodes are seen, and in what colour.
#pragma once

#include <algorithm>
#include <cmath>

#include "page/drawing.hpp"

namespace velmar_2d::page {

inline constexpr Colour coarse_mark = {230.0, 70.0, 40.0};

/// Each link has one end from which it leads in one of these.
inline constexpr std::array<Direction, 4> half_of_directions = {
    Direction::north, Direction::north_east, Direction::east, Direction::south_east};

/// The highest level that the scene will have: colours keep still while the mesh moves.
inline double range_of_levels(const Stage& stage) {
  const double wanted = std::ceil(2.0 * std::log2(stage.mesh->dist_0() / stage.scene.finest));
  return std::clamp(wanted, 1.0, std::max(1.0, static_cast<double>(stage.scene.limit)));
}

/// Calls with each node that has to do with the view, and its number.
template <typename Draw>
void for_each_seen(const Stage& stage, const View& view, const Draw& draw) {
  // A cell reaches as far as the links of its node, which are no longer than the first ones.
  const double reach = 1.5 * stage.mesh->dist_0() * view.scale;
  std::size_t i = 0;
  for (const Cell& c : stage.mesh->nodes()) {
    const Spot spot{view.column(c.x), view.row(c.y)};
    if (spot.column > -reach && spot.column < view.width + reach && spot.row > -reach &&
        spot.row < view.height + reach) {
      draw(c, i, spot);
    }
    ++i;
  }
}

/// A number between 0 and 1 that the colour of a node tells.
class Shade {
 public:
  Shade(const Stage& stage, const Look& look)
      : stage_(stage), by_value_(look.by_value), range_(range_of_levels(stage)) {}
  double operator()(const Cell& c, std::size_t i) const {
    return by_value_ ? static_cast<double>(stage_.values[i]) : std::min(1.0, c.level / range_);
  }

 private:
  const Stage& stage_;
  bool by_value_;
  double range_;
};

/// A link has the shade of its finer end.
inline double shade_of_link(const Shade& shade, const Look& look, const Cell& c, std::size_t i,
                            const Cell& other) {
  return !look.by_value && other.level > c.level ? shade(other, 0) : shade(c, i);
}

}  // namespace velmar_2d::page
