// The rules of a whole mesh, checked one node after the other.
//
// Nothing is taken for granted: a link is followed only once its target is known to be a node of
// the list, and the list only as far as its nodes are new, so that a broken mesh is reported and
// not run into.
#include <bitset>
#include <cmath>
#include <limits>
#include <memory>
#include <new>

#include "velmar_2D/check/check.hpp"

namespace velmar_2d::detail {

namespace {

/// A position as a place of the lattice of its ipos: offsets in units of dist_0 / 2^k, with k half
/// of ipos rounded up. The key is the same for the same place; others may share it.
struct Place {
  std::int64_t column = 0, row = 0;
  std::uint64_t key = 0;
};

/// Nodes by their address. They lie close together in large pieces of memory, and so a bit for each
/// place of a piece takes so little that the cache holds it all.
class NodeSet {
 public:
  /// False where the node is in the set already.
  bool add(const Cell* c) {
    if (2 * (nb_pieces_ + 1) > pieces_.size()) grow();
    Piece& piece = pieces_[find(pieces_, key_of(c))];
    if (piece.places == nullptr) {
      piece = {key_of(c), std::make_unique<Places>()};
      ++nb_pieces_;
    }
    if (piece.places->test(place_of(c))) return false;
    piece.places->set(place_of(c));
    return true;
  }
  bool contains(const Cell* c) const {
    const Piece& piece = pieces_[find(pieces_, key_of(c))];
    return piece.places != nullptr && piece.places->test(place_of(c)) &&
           reinterpret_cast<std::uintptr_t>(c) % alignof(Cell) == 0;
  }

 private:
  static constexpr int bits_of_a_piece = 18;
  static constexpr std::size_t places_of_a_piece =
      (std::size_t{1} << bits_of_a_piece) / alignof(Cell);
  using Places = std::bitset<places_of_a_piece>;
  struct Piece {
    std::uintptr_t key = 0;
    std::unique_ptr<Places> places;
  };

  static std::uintptr_t key_of(const Cell* c) {
    return reinterpret_cast<std::uintptr_t>(c) >> bits_of_a_piece;
  }
  static std::size_t place_of(const Cell* c) {
    return reinterpret_cast<std::uintptr_t>(c) / alignof(Cell) % places_of_a_piece;
  }
  /// The piece, or the free one that can become it.
  static std::size_t find(const std::vector<Piece>& pieces, std::uintptr_t key) {
    std::size_t i = key & (pieces.size() - 1);
    while (pieces[i].places != nullptr && pieces[i].key != key) i = (i + 1) & (pieces.size() - 1);
    return i;
  }
  void grow() {
    std::vector<Piece> doubled(2 * pieces_.size());
    for (Piece& piece : pieces_) {
      if (piece.places != nullptr) doubled[find(doubled, piece.key)] = std::move(piece);
    }
    pieces_.swap(doubled);
  }

  std::vector<Piece> pieces_{16};  ///< at most half full; their number is a power of 2
  std::size_t nb_pieces_ = 0;
};

/// Nodes by their place: an open-addressing table, at most half full.
class PlaceTable {
 public:
  explicit PlaceTable(std::size_t nb_nodes_at_most)
      : by_place_(nb_slots(nb_nodes_at_most)), mask_(by_place_.size() - 1) {}

  static std::size_t bytes(std::size_t nb_nodes_at_most) {
    return nb_slots(nb_nodes_at_most) * sizeof(PlaceSlot);
  }

  /// Brings the slot of a place into the cache: places are spread over the whole table.
  void prepare(std::uint64_t key) const { prefetch_to_write(&by_place_[slot_of(key)]); }

  /// The node at a place, which is `c` from now on where there was none.
  template <typename IsSamePlace>
  const Cell* node_at(std::uint64_t key, const Cell* c, const IsSamePlace& is_same_place) {
    std::size_t i = slot_of(key);
    while (by_place_[i].node != nullptr) {
      if (by_place_[i].key == key && is_same_place(*by_place_[i].node)) return by_place_[i].node;
      i = (i + 1) & mask_;
    }
    by_place_[i] = {key, c};
    return c;
  }

  static std::uint64_t spread(std::uint64_t key) {
    key ^= key >> 32;
    key *= 0x9e3779b97f4a7c15;
    return key ^ (key >> 29);
  }

 private:
  struct PlaceSlot {
    std::uint64_t key = 0;
    const Cell* node = nullptr;
  };

  static std::size_t nb_slots(std::size_t nb_nodes_at_most) {
    return std::bit_ceil(2 * nb_nodes_at_most + 2);
  }
  std::size_t slot_of(std::uint64_t key) const { return static_cast<std::size_t>(key) & mask_; }

  std::vector<PlaceSlot> by_place_;
  std::size_t mask_;
};

/// What one call works with.
struct Check {
  const State& state;
  std::vector<Finding>& findings;
  PlaceTable places;
  std::vector<std::int32_t> nodes_in_stretch;  ///< as far as the list can be followed
  NodeSet nodes = {};
  double tolerance = 0.0;               ///< of positions, in units of check.state.domain.dist_0
  double area = 0.0;                    ///< of all control cells
  std::array<double, 4> side_length{};  ///< of all control cells along n, e, s, w
  bool links_hold = true;               ///< so that areas and sides can be computed

  void report(std::string_view rule, std::string_view text, const Cell* c = nullptr,
              const Cell* neighbour = nullptr) const {
    findings.push_back({rule, text, c, neighbour});
  }
};

// ---------------------------------------------------------------------------------------------
// The list
// ---------------------------------------------------------------------------------------------

void check_arrays(const Check& check) {
  if (check.state.level_beg.size() != check.state.level_end.size()) {
    check.report("arrays", "level_beg and check.state.level_end differ in length");
  }
  if (check.state.nb_nodes > 0 && check.state.level_beg.size() <= static_cast<std::size_t>(std::max(
                                                                      check.state.level_max, 0))) {
    check.report("arrays", "the level arrays end below the limit");
  }
  for (std::size_t l = 0; l < std::min(check.state.level_beg.size(), check.state.level_end.size());
       ++l) {
    if ((check.state.level_beg[l].next == nullptr) != (check.state.level_end[l].next == nullptr)) {
      check.report("arrays", "a stretch has one end only", check.state.level_beg[l].next,
                   check.state.level_end[l].next);
    }
    if (check.state.level_beg[l].next != nullptr &&
        static_cast<std::int64_t>(l) > check.state.level_max) {
      check.report("arrays", "a stretch above the limit holds nodes",
                   check.state.level_beg[l].next);
    }
  }
}

/// Follows one stretch and returns its last node; nullptr where it has none.
const Cell* check_stretch(Check& check, std::size_t stretch, const Cell* before) {
  const Cell* c = check.state.level_beg[stretch].next;
  while (c != nullptr) {
    if (check.nodes_in_stretch[stretch] == std::max(check.state.nb_nodes, 0))
      break;  // reported as a count
    if (!check.nodes.add(c)) {
      check.report("list", "the list comes back to a node", c);
      break;
    }
    ++check.nodes_in_stretch[stretch];
    if (c->prev != before) check.report("list", "prev is not the node before", c, before);
    if (c->ipos != static_cast<std::int64_t>(stretch)) {
      check.report("stretch", "the node lies in the stretch of another ipos", c);
    }
    before = c;
    if (c == check.state.level_end[stretch].next) return c;
    c = c->next;
  }
  if (before != check.state.level_end[stretch].next) {
    check.report("stretch", "a stretch does not lead to its end", before,
                 check.state.level_end[stretch].next);
  }
  return before;
}

void check_list(Check& check) {
  const bool joined = !check.state.lists_are_split();
  const Cell* last = nullptr;
  std::int64_t nb_listed = 0;
  for (std::size_t l = 0; l < std::min(check.state.level_beg.size(), check.state.level_end.size());
       ++l) {
    const Cell* first = check.state.level_beg[l].next;
    if (first == nullptr) continue;
    if (joined && first != (last != nullptr ? last->next : check.state.mesh_beg)) {
      check.report("list", "the list does not lead on to the next stretch", last, first);
    }
    const Cell* end_of_stretch = check_stretch(check, l, joined ? last : nullptr);
    nb_listed += check.nodes_in_stretch[l];
    if (!joined && end_of_stretch != nullptr && end_of_stretch->next != nullptr) {
      check.report("list", "a stretch of the split list leads on", end_of_stretch);
    }
    last = end_of_stretch;
  }
  if (joined && (last != nullptr ? last->next : check.state.mesh_beg) != nullptr) {
    check.report("list", "the list goes on beyond its last stretch", last);
  }
  if (check.state.mesh_end != (joined ? last : nullptr)) {
    check.report("list", "mesh_end is not the last node", last, check.state.mesh_end);
  }
  if (nb_listed != check.state.nb_nodes)
    check.report("count", "nb_nodes is not the number of listed nodes");
}

// ---------------------------------------------------------------------------------------------
// Single nodes
// ---------------------------------------------------------------------------------------------

/// Positions in units of dist_0 / scale; not whole numbers where the node is off its lattice.
Place nearest_place(const Domain& domain, const Cell& c, double scale) {
  constexpr double largest_index = 9e15;  // whole numbers up to here are exact
  const auto index = [&](double offset) {
    const double nearest = std::nearbyint(offset / domain.dist_0 * scale);
    return std::abs(nearest) < largest_index ? static_cast<std::int64_t>(nearest) : 0;
  };
  Place place{index(c.x - domain.x_min), index(c.y - domain.y_min)};
  place.key = PlaceTable::spread(static_cast<std::uint64_t>(place.column) * 0xd6e8feb86659fd93 +
                                 static_cast<std::uint64_t>(place.row) * 2 +
                                 static_cast<std::uint64_t>(c.ipos));
  return place;
}

void check_position(Check& check, const Cell& c, const Place& place, double scale) {
  const double step = check.state.domain.dist_0 / scale,
               margin = check.tolerance * check.state.domain.dist_0;
  if (c.ipos < 0) return;
  const double off_x = c.x - check.state.domain.x_min - static_cast<double>(place.column) * step;
  const double off_y = c.y - check.state.domain.y_min - static_cast<double>(place.row) * step;
  if (!(std::abs(off_x) <= margin && std::abs(off_y) <= margin)) {
    check.report("position", "the node does not lie on the lattice of its ipos", &c);
    return;
  }
  if (c.x < check.state.domain.x_min - margin || c.x > check.state.domain.x_max + margin ||
      c.y < check.state.domain.y_min - margin || c.y > check.state.domain.y_max + margin) {
    check.report("position", "the node lies outside of the domain", &c);
  }
  const int nb_odd = (place.column % 2 != 0 ? 1 : 0) + (place.row % 2 != 0 ? 1 : 0);
  if (c.ipos > 0 && nb_odd != (c.ipos % 2 != 0 ? 2 : 1)) {
    check.report("position", "ipos is not that of the position", &c);
  }
  const auto is_same_place = [&](const Cell& other) {
    return other.ipos == c.ipos && std::abs(other.x - c.x) < 0.5 * step &&
           std::abs(other.y - c.y) < 0.5 * step;
  };
  const Cell* at_place = check.places.node_at(place.key, &c, is_same_place);
  if (at_place != &c) check.report("unique", "two nodes have the same position", &c, at_place);
}

void check_numbers(const Check& check, const Cell& c) {
  if (c.id < 1 || c.id >= check.state.next_id)
    check.report("id", "the id was not taken from check.state.next_id", &c);
  // Removals from among finer nodes can leave a level below that of the position.
  if (c.level < 0 || c.level > check.state.level_max) {
    check.report("level", "the level is outside of the limits", &c);
  }
  if (c.reserve < 1 || c.reserve > 4) check.report("reserve", "reserve is not 1 to 4", &c);
}

/// Whether every link designates a node of the list or, in a straight direction, a Boundary.
bool check_links(const Check& check, const Cell& c) {
  bool hold = true;
  for (int d = 0; d < nb_directions; ++d) {
    const NeighbourLink l = link(c, d);
    if (const std::int32_t level = c.*link_level_members[static_cast<std::size_t>(d)];
        level != 1 && level != 2) {
      check.report("link_level", "the level of a link is not 1 or 2", &c, l.cell());
    }
    if (l.empty()) continue;
    const Cell* neighbour = l.cell();
    if (neighbour == nullptr) {
      if (d % 2 == 0) continue;
      check.report("link", "a diagonal link designates a Boundary", &c);
      hold = false;
    } else if (!check.nodes.contains(neighbour)) {
      check.report("link", "a link leads out of the mesh", &c, neighbour);
      hold = false;
    } else if (link(*neighbour, opposite(d)).cell() != &c) {
      check.report("mutual", "a neighbour does not link back", &c, neighbour);
    }
  }
  return hold;
}

/// A node has the record of a side exactly where it lies on that side.
void check_sides(const Check& check, const Cell& c) {
  const auto& records = check.state.side_records;
  const double margin = check.tolerance * check.state.domain.dist_0;
  const std::array<double, 4> to_side = {
      check.state.domain.y_max - c.y, check.state.domain.x_max - c.x,
      c.y - check.state.domain.y_min, c.x - check.state.domain.x_min};
  std::int32_t nb_sides = 0;
  for (std::size_t side = 0; side < 4; ++side) {
    const Boundary* record = link(c, static_cast<int>(2 * side)).boundary();
    const bool on_side = std::abs(to_side[side]) <= margin;
    nb_sides += on_side ? 1 : 0;
    if (record == nullptr) {
      if (on_side) check.report("side", "a node on a side has no record of it", &c);
    } else if (!on_side) {
      check.report("side", "a node has the record of a side that it does not lie on", &c);
    } else if (std::none_of(records[side].begin(), records[side].end(),
                            [&](const Boundary* of_side) { return of_side == record; })) {
      check.report("side", "a link designates a record of none of the kinds of its side", &c);
    }
  }
  if (c.on_boundary != nb_sides) {
    check.report("side", "on_boundary is not the number of sides that the node lies on", &c);
  }
}

/// What the node keeps of its shape: the signature, and in the link levels the halves of the faces.
void check_shape(const Check& check, const Cell& c, const Signature& signature) {
  const Signature cached = {load_shared(c.signature[0]), load_shared(c.signature[1])};
  if (load_shared(c.signature_set) && cached != signature) {
    check.report("signature", "the signature is set, but not that of the links", &c);
  }
  if (c.level == 0) return;  // here all link levels are those of the first grid
  for (int d = 0; d < nb_directions; ++d) {
    const Cell* neighbour = link(c, d).cell();
    const bool full = (signature[1] & (128U >> d)) != 0;
    const std::int32_t level = c.*link_level_members[static_cast<std::size_t>(d)];
    if (neighbour == nullptr || level == (full ? 2 : 1)) continue;
    check.report("link_level", "the level of a link is not the number of halves of its face", &c,
                 neighbour);
  }
}

/// The control cell: the way to its neighbours, what is cached of it, and its share of the domain.
void check_cell(Check& check, const Cell& c) {
  const Ring levels = surroundings_of(check.state.domain, c).levels;
  for (int d = 0; d < nb_directions; ++d) {
    if (byte_at(levels, d) != off_lattice) continue;
    check.report("direction", "a neighbour does not lie where the link points", &c,
                 link(c, d).cell());
  }
  const NodeShape found = look_around(check.state.domain, c);
  const double area = found.shape != nullptr
                          ? found.shape->area * check.state.domain.dist_0 *
                                check.state.domain.dist_0 * exact_power_of_2(-c.level)
                          : area_of(polygon_of(check.state.domain, c));
  check.area += area;
  const double cached = load_shared(c.area);
  if (is_known_area(cached) && !(std::abs(cached - area) <= area_tolerance * area)) {
    check.report("area", "the cached area is not that of the control cell", &c);
  }
  if (found.shape != nullptr) check_shape(check, c, found.signature);
  if (c.on_boundary == 0) return;
  CellFaces faces;
  cell_faces(check.state, c, faces);
  for (std::size_t side = 0; side < 4; ++side) check.side_length[side] += faces.side[side];
}

void check_node(Check& check, const Cell& c) {
  check_numbers(check, c);
  check_sides(check, c);
  if (check_links(check, c)) {
    check_cell(check, c);
  } else {
    check.links_hold = false;
  }
}

/// Prefetches what the checks of a node will read there and at its neighbours.
VELMAR_2D_ALWAYS_INLINE void prepare(const Cell& c) {
  for (int d = 0; d < nb_directions; ++d) {
    const Cell* neighbour = link(c, d).cell();
    if (neighbour == nullptr) continue;
    const auto* bytes = reinterpret_cast<const std::byte*>(neighbour);
    prefetch(bytes);
    prefetch(bytes + cache_line);
  }
}

void check_nodes(Check& check) {
  constexpr std::int32_t nodes_at_a_time = 16;
  std::array<Place, nodes_at_a_time> places;
  for (std::size_t l = 0; l < check.nodes_in_stretch.size(); ++l) {
    const double scale = std::ldexp(1.0, static_cast<int>((l + 1) / 2));
    const Cell* first = check.state.level_beg[l].next;
    std::int32_t left = check.nodes_in_stretch[l];
    while (left > 0) {
      const auto n = static_cast<std::size_t>(std::min(left, nodes_at_a_time));
      const Cell* c = first;
      for (std::size_t i = 0; i < n; ++i, c = c->next) {
        places[i] = nearest_place(check.state.domain, *c, scale);
        check.places.prepare(places[i].key);
        prefetch(&c->n);
        prefetch(&c->area);
      }
      c = first;
      for (std::size_t i = 0; i < n; ++i, c = c->next) prepare(*c);
      c = first;
      for (std::size_t i = 0; i < n; ++i, c = c->next) {
        check_position(check, *c, places[i], scale);
        check_node(check, *c);
      }
      first = c;
      left -= static_cast<std::int32_t>(n);
    }
  }
}

/// The control cells fill the domain and close its sides.
void check_sums(const Check& check) {
  const double width = check.state.domain.x_max - check.state.domain.x_min,
               height = check.state.domain.y_max - check.state.domain.y_min;
  const double tolerance =
      sum_tolerance + check.tolerance * check.state.domain.dist_0 / std::min(width, height);
  if (std::abs(check.area - width * height) > tolerance * width * height) {
    check.report("domain_area", "the control cells do not sum to the domain");
  }
  for (std::size_t side = 0; side < 4; ++side) {
    const double length = side % 2 == 0 ? width : height;
    if (std::abs(check.side_length[side] - length) <= tolerance * length) continue;
    check.report("closed_sides", "the control cells on a side do not sum to its length");
  }
}

}  // namespace

void find_broken_rules(const State& state, std::vector<Finding>& findings) {
  findings.clear();
  const Domain& domain = state.domain;
  Check check{state, findings, PlaceTable(static_cast<std::size_t>(std::max(state.nb_nodes, 0))),
              std::vector<std::int32_t>(std::min(state.level_beg.size(), state.level_end.size()))};
  // As true_ipos() tells positions apart, and twice that for the nodes between two others.
  check.tolerance = std::max(2e-12, 16.0 * std::numeric_limits<double>::epsilon() *
                                        domain.largest_coordinate / domain.dist_0);
  check_arrays(check);
  check_list(check);
  check_nodes(check);
  if (state.nb_nodes > 0 && check.links_hold) check_sums(check);
}

std::size_t check_mesh(const State& state, std::vector<Finding>& findings) {
  try {
    find_broken_rules(state, findings);
  } catch (const std::bad_alloc&) {
    allocation_failed(state.handlers,
                      PlaceTable::bytes(static_cast<std::size_t>(std::max(state.nb_nodes, 0))));
  }
  return findings.size();
}

}  // namespace velmar_2d::detail
