// Which own nodes other pieces have to know.
//
// Every link joins a node and one that rests on it, unless both are of the grid. So of two linked
// nodes the piece that owns the one that rests knows both. Once it has told the other of its node,
// both know all links of their own nodes, and so which nodes of theirs are linked to which: what
// another piece needs besides, nodes that are linked to those linked to its own, can be told
// exactly.
#include <limits>

#include "velmar_2D/pieces/pieces.hpp"

namespace velmar_2d::detail {

namespace {

struct BoxSides {
  double west, east, south, north;

  /// How far off a node is: along x or y, whichever is more.
  double distance(const Cell& c) const {
    return std::max({west - c.x, c.x - east, south - c.y, c.y - north});
  }
  bool contains(const Cell& c) const {
    return c.x >= west && c.x < east && c.y >= south && c.y < north;
  }
};

constexpr double a_little_more = 1.001;  // than distances are, with rounding

/// How far a node of each level is from those that it is linked to, or that rest on it.
class Reaches {
 public:
  explicit Reaches(const State& state) {
    for (std::size_t l = 0; l < of_level_.size(); ++l) {
      of_level_[l] =
          a_little_more * state.domain.dist_0 / exact_power_of_2(static_cast<std::int32_t>(l / 2));
    }
  }
  double of_level(std::int32_t level) const { return of_level_[static_cast<std::size_t>(level)]; }
  double of(const Cell& c) const { return of_level(c.level); }

 private:
  std::array<double, highest_wanted_level + 1> of_level_{};
};

BoxSides sides_of(const State& state, const Window& box) {
  const Frame& frame = state.domain.frame;
  const double dist_0 = state.domain.dist_0;
  return {frame.x_min + box.west * dist_0, frame.x_min + box.east * dist_0,
          frame.y_min + box.south * dist_0, frame.y_min + box.north * dist_0};
}

template <typename Test>
bool has_link(const Cell& c, const Test& test) {
  for (int d = 0; d < nb_directions; ++d) {
    const Cell* there = link(c, d).cell();
    if (there != nullptr && test(*there)) return true;
  }
  return false;
}

}  // namespace

// A node of level l is linked to none beyond the spacing of that level, and those that it is linked
// to to none beyond twice that.
std::vector<PieceUpdate::Near> PieceUpdate::border(const Window& of, int layers) {
  if (!is_updating_ && !is_listed_) list_nodes();
  const BoxSides box = sides_of(state_, of);
  const Reaches reaches(state_);
  const auto may_be_linked = [&](const Cell& c) { return box.distance(c) <= reaches.of(c); };
  std::vector<Near> found;
  for (const Near& near : near_) {
    const Cell& c = *near.cell;
    if (may_be_linked(c) || (layers > 1 && has_link(c, may_be_linked))) found.push_back(near);
  }
  return found;
}

bool PieceUpdate::rests_on(const Box& box, LatticePoint at, std::int32_t ipos) const {
  for (int d = ipos % 2; d < nb_directions && ipos > 0; d += 2) {
    if (box.contains(wants_.neighbour(at, d, ipos))) return true;
  }
  return false;
}

std::vector<std::vector<LatticePoint>> PieceUpdate::children_of(std::span<const Window> of,
                                                                bool of_all) {
  if (!is_updating_ && !is_listed_) list_nodes();
  std::vector<Box> boxes;
  for (const Window& window : of) boxes.push_back(box_of(window));
  std::vector<std::vector<LatticePoint>> found(of.size());
  const auto tell = [&](LatticePoint at, std::int32_t ipos) {
    for (std::size_t i = 0; i < boxes.size(); ++i) {
      if (rests_on(boxes[i], at, ipos)) found[i].push_back(at);
    }
  };
  if (of_all) {
    for (const Near& near : near_) tell(near.at, near.cell->ipos);
  } else {
    for (const Cell* c : newcomers_) {
      if (owns(*c) && is_near(*c)) tell(place_of(*c), c->ipos);
    }
  }
  return found;
}

// A link of another piece's node is not known for certain here, as those beyond it are not: where
// that node may be linked to one of the box, it counts as if it were. These are few, since three
// boxes meet there.
std::vector<std::vector<LatticePoint>> PieceUpdate::borders(std::span<const Window> of) {
  if (!is_updating_ && !is_listed_) list_nodes();
  struct Other {
    Box box;
    BoxSides sides, ends;  ///< the latter as those of owns()
  };
  const double before = a_quarter_of_the_finest_spacing();
  std::vector<Other> others;
  for (const Window& window : of) {
    const BoxSides sides = sides_of(state_, window);
    const auto end = [&](double side, std::int32_t line, std::int32_t last) {
      return line == last ? std::numeric_limits<double>::infinity() : side - before;
    };
    others.push_back({box_of(window),
                      sides,
                      {sides.west - before, end(sides.east, window.east, nx_ - 1),
                       sides.south - before, end(sides.north, window.north, ny_ - 1)}});
  }
  const Reaches reaches(state_);
  const auto is_linked_to = [&](const Other& other) {
    return [&](const Cell& c) {
      if (other.sides.distance(c) > reaches.of(c)) return false;
      const auto is_there = [&](const Cell& there) { return other.ends.contains(there); };
      return is_there(c) || !owns(c) || has_link(c, is_there);
    };
  };
  std::vector<std::vector<LatticePoint>> found(of.size());
  for (const Near& near : near_) {
    const Cell& c = *near.cell;
    const double farthest = std::max(reaches.of_level(c.ipos), 4.0 * reaches.of(c));
    if (distance_to_cut(c) > farthest) continue;
    for (std::size_t i = 0; i < others.size(); ++i) {
      const double distance = others[i].sides.distance(c);
      if (distance > farthest) continue;
      if (rests_on(others[i].box, near.at, c.ipos) || has_link(c, is_linked_to(others[i]))) {
        found[i].push_back(near.at);
      }
    }
  }
  return found;
}

}  // namespace velmar_2d::detail
