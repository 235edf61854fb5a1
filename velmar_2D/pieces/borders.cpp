// Which own nodes other pieces have to know.
//
// Every link joins a node and one that rests on it, unless both are of the grid. So of two linked
// nodes the piece that owns the one that rests knows both. Once it has told the other of its node,
// both know all links of their own nodes, and so which nodes of theirs are linked to which: what
// another piece needs besides, nodes that are linked to those linked to its own, can be told
// exactly.
#include <bit>

#include "velmar_2D/pieces/pieces.hpp"

namespace velmar_2d::detail {

namespace {

struct BoxSides {
  double west, east, south, north;

  /// How far off a node is: along x or y, whichever is more.
  double distance(const Cell& c) const {
    return std::max({west - c.x, c.x - east, south - c.y, c.y - north});
  }
};

constexpr std::size_t ahead = 8;         // nodes that are brought near before they are looked at
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

BoxSides sides_of(Point low, Point high) { return {low.x, high.x, low.y, high.y}; }

/// Keeps the first of equal ones.
void drop_repeated(std::vector<const Cell*>& nodes) {
  std::vector<const Cell*> slots(std::bit_ceil(2 * nodes.size() + 1), nullptr);
  const auto is_new = [&slots](const Cell* c) {
    const auto address = static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(c));
    auto slot = static_cast<std::size_t>((address * 0x9e3779b97f4a7c15U) >> 20);
    for (;; ++slot) {
      const Cell*& there = slots[slot & (slots.size() - 1)];
      if (there == c) return false;
      if (there != nullptr) continue;
      there = c;
      return true;
    }
  };
  std::erase_if(nodes, [&](const Cell* c) { return !is_new(c); });
}

template <typename Test>
bool has_link(const Cell& c, const Test& test) {
  for (int d = 0; d < nb_directions; ++d) {
    const Cell* there = link(c, d).cell();
    if (there != nullptr && test(*there)) return true;
  }
  return false;
}

/// Own nodes that a node is linked to.
struct OwnLinks {
  OwnLinks(const PieceUpdate& piece, const Cell& c) {
    for (int d = 0; d < nb_directions; ++d) {
      const Cell* there = link(c, d).cell();
      if (there != nullptr && piece.owns(*there)) all[n++] = there;
    }
  }
  std::span<const Cell* const> nodes() const { return std::span(all).first(n); }

  std::array<const Cell*, nb_directions> all{};
  std::size_t n = 0;
};

/// Another piece, own nodes that are linked to its own, and those that it has to know.
struct Other {
  Box box;
  BoxSides sides;
  std::vector<const Cell*> linked, found;
};

/// Of a ghost that these own nodes are linked to.
void note_links(std::vector<Other>& others, const Cell& ghost, LatticePoint at,
                std::span<const Cell* const> own, double reach) {
  for (Other& other : others) {
    const bool is_its_own = other.box.contains(at);
    if (!is_its_own && other.sides.distance(ghost) > reach) continue;
    std::vector<const Cell*>& to = is_its_own ? other.linked : other.found;
    to.insert(to.end(), own.begin(), own.end());
  }
}

}  // namespace

// A node of level l is linked to none beyond the spacing of that level, and those that it is linked
// to to none beyond twice that.
std::vector<PieceUpdate::Near> PieceUpdate::border(const Box& of, int layers) {
  if (!is_updating_ && !is_listed_) list_nodes();
  const BoxSides box = sides_of(point_at(of.low), point_at(of.high));
  const Reaches reaches(state_);
  const auto may_be_linked = [&](const Cell& c) { return box.distance(c) <= reaches.of(c); };
  std::vector<Near> found;
  for (const Near& near : near_) {
    const Cell& c = *near.cell;
    if (may_be_linked(c) || (layers > 1 && has_link(c, may_be_linked))) found.push_back(near);
  }
  return found;
}

bool PieceUpdate::rests_beyond(LatticePoint at, std::int32_t ipos) const {
  for (int d = ipos % 2; d < nb_directions && ipos > 0; d += 2) {
    const LatticePoint parent = wants_.neighbour(at, d, ipos);
    if (wants_.contains(parent) && !owns(parent)) return true;
  }
  return false;
}

bool PieceUpdate::rests_on(const Box& box, LatticePoint at, std::int32_t ipos) const {
  for (int d = ipos % 2; d < nb_directions && ipos > 0; d += 2) {
    if (box.contains(wants_.neighbour(at, d, ipos))) return true;
  }
  return false;
}

std::vector<std::vector<LatticePoint>> PieceUpdate::children_of(std::span<const Box> of,
                                                                bool of_all) {
  if (!is_updating_ && !is_listed_) list_nodes();
  std::vector<Box> boxes;
  for (const Box& box : of) boxes.push_back(closed_at_sides(box));
  std::vector<std::vector<LatticePoint>> found(of.size());
  const auto tell = [&](LatticePoint at, std::int32_t ipos) {
    for (std::size_t i = 0; i < boxes.size(); ++i) {
      if (rests_on(boxes[i], at, ipos)) found[i].push_back(at);
    }
  };
  // Those that come stand behind the others.
  const std::size_t first = of_all ? 0 : std::min(nb_near_before_, near_.size());
  for (const Near& near : std::span(near_).subspan(first)) {
    if (near.rests_beyond) tell(near.at, near.cell->ipos);
  }
  return found;
}

/// Ghosts that have come since begin(), or are linked to own nodes that have, or to such that are
/// linked to these: a new link has one of them at an end.
std::vector<const Cell*> PieceUpdate::ghosts_at_newcomers() const {
  std::vector<const Cell*> found;
  for (const std::int32_t number : new_ghosts_) {
    const Cell* c = ghost_table_->entries()[static_cast<std::size_t>(number)].cell;
    if (c != nullptr) found.push_back(c);
  }
  const std::size_t first = std::min(nb_near_before_, near_.size());
  for (const Near& near : std::span(near_).subspan(first)) {
    for (int d = 0; d < nb_directions; ++d) {
      const Cell* there = link(*near.cell, d).cell();
      if (there == nullptr) continue;
      if (!owns(*there)) found.push_back(there);
      for (int e = 0; e < nb_directions && owns(*there); ++e) {
        const Cell* beyond = link(*there, e).cell();
        if (beyond != nullptr && !owns(*beyond)) found.push_back(beyond);
      }
    }
  }
  drop_repeated(found);
  return found;
}

// The ghosts that are linked to own nodes tell which these are. A link of a ghost to another piece
// is not known for certain here, as what lies beyond ghosts is not: where it may have one, it
// counts as if it had. These are few, since three boxes meet there.
std::vector<std::vector<LatticePoint>> PieceUpdate::borders(std::span<const Box> of, bool of_all) {
  if (!is_updating_ && !is_listed_) list_nodes();
  std::vector<Other> others;
  for (const Box& box : of) {
    others.push_back(
        {closed_at_sides(box), sides_of(point_at(box.low), point_at(box.high)), {}, {}});
  }
  const Reaches reaches(state_);
  const auto look_at_ghost = [&](const Cell& ghost, LatticePoint at) {
    const OwnLinks own(*this, ghost);
    if (own.n > 0) note_links(others, ghost, at, own.nodes(), reaches.of(ghost));
  };
  if (of_all) {
    const std::vector<Lattice::Entry>& entries = ghost_table_->entries();
    for (std::size_t i = 0; i < entries.size(); ++i) {
      if (i + ahead < entries.size()) prefetch_lines(entries[i + ahead].cell, 2);
      if (entries[i].cell != nullptr) look_at_ghost(*entries[i].cell, entries[i].at);
    }
  } else {
    for (const Cell* ghost : ghosts_at_newcomers()) look_at_ghost(*ghost, place_of(*ghost));
  }
  std::vector<std::vector<LatticePoint>> found;
  for (Other& other : others) {
    drop_repeated(other.linked);
    for (const Cell* c : other.linked) {
      const OwnLinks own(*this, *c);
      other.found.push_back(c);
      other.found.insert(other.found.end(), own.nodes().begin(), own.nodes().end());
    }
    drop_repeated(other.found);
    found.emplace_back();
    for (const Cell* c : other.found) found.back().push_back(place_of(*c));
  }
  if (of_all) {
    std::vector<std::vector<LatticePoint>> children = children_of(of, true);
    for (std::size_t i = 0; i < found.size(); ++i) {
      found[i].insert(found[i].end(), children[i].begin(), children[i].end());
    }
  }
  return found;
}

}  // namespace velmar_2d::detail
