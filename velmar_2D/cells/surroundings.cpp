// Reading what surrounds a node, and recognising its shape there.
#include <cmath>

#include "velmar_2D/cells/cells.hpp"

namespace velmar_2d::detail {

namespace {

/// Stored form of the spacing level of a link, or off_lattice.
unsigned stored_level(const Cell& c, const Cell& neighbour, int d, double per_dist_0) {
  // With the tolerance added, a power of two that came out a little too small or too large has the
  // right exponent, and a mantissa that starts with zeros.
  constexpr int mantissa_bits = 52, exponent_bias = 1023;
  constexpr auto one = static_cast<double>(std::uint64_t{1} << mantissa_bits);
  constexpr auto tolerance = static_cast<std::uint64_t>(lattice_tolerance * one);

  const auto i = static_cast<std::size_t>(d);
  const bool diagonal = (d & 1) != 0;
  const double dx = neighbour.x - c.x, dy = neighbour.y - c.y;
  const double along = (dx * away_x[i] + dy * away_y[i]) * (diagonal ? 0.5 : 1.0);
  const double across = std::abs(dx * away_y[i] - dy * away_x[i]);
  const std::uint64_t bits = std::bit_cast<std::uint64_t>(along * per_dist_0) + tolerance;
  const std::uint64_t mantissa = bits & ((std::uint64_t{1} << mantissa_bits) - 1);
  const int halvings = exponent_bias - static_cast<int>(bits >> mantissa_bits);
  const int level = 2 * halvings - (diagonal ? 1 : 0);
  // A negative or not-a-number distance has an exponent far out of range.
  const bool fits = mantissa <= 2 * tolerance && across <= along * lattice_tolerance &&
                    level > -spacing_level_offset && level <= highest_spacing_level;
  return fits ? static_cast<unsigned>(level + spacing_level_offset) : off_lattice;
}

}  // namespace

Surroundings surroundings_of(const Domain& domain, const Cell& c) {
  Surroundings s;
  const double per_dist_0 = 1.0 / domain.dist_0;
  for (int d = 0; d < nb_directions; ++d) {
    const NeighbourLink there = link(c, d);
    if (there.empty()) continue;
    const Cell* neighbour = there.cell();
    if (neighbour == nullptr) {
      s.sides |= in_direction(d, 0x80);
      continue;
    }
    s.levels |= in_direction(d, stored_level(c, *neighbour, d, per_dist_0));
  }
  return s;
}

namespace {

/// The signature as far as the node's own record tells it: a link level is the number of halves of
/// the face, once the node has left level 0.
NodeShape look_at_record(const Cell& c) {
  unsigned cells = 0, full = 0;
  for (int d = 0; d < nb_directions; ++d) {
    const unsigned cell = link(c, d).cell() != nullptr ? 128U >> d : 0U;
    cells |= cell;
    full |= c.*link_level_members[static_cast<std::size_t>(d)] == 2 ? cell : 0U;
  }
  const Signature signature = {static_cast<std::uint8_t>(cells), static_cast<std::uint8_t>(full)};
  return {signature, known_shape(signature)};
}

}  // namespace

NodeShape look_around(const Domain& domain, const Cell& c) {
  const Surroundings s = surroundings_of(domain, c);
  NodeShape found{signature_of(s), nullptr};
  const KnownShape* shape = known_shape(found.signature);
  if (shape == nullptr) return found;
  const auto lift = static_cast<Ring>(c.level + spacing_level_offset - 1);
  const Ring lifted = shape->surroundings.levels + lift * (occupied(s.levels) >> 7);
  if (lifted == s.levels && s.sides == shape->surroundings.sides) {
    found.shape = shape;
  } else {
    found.signature[1] = no_fit;
  }
  return found;
}

NodeShape look_at(const Domain& domain, const Cell& c) {
  if (load_shared(c.signature_set)) {
    const Signature signature = {load_shared(c.signature[0]), load_shared(c.signature[1])};
    const KnownShape* shape = known_shape(signature);
    if (shape != nullptr) return {signature, shape};
  }
  if (c.level > 0) {
    const NodeShape found = look_at_record(c);
    if (found.shape != nullptr) return found;
  }
  return look_around(domain, c);
}

}  // namespace velmar_2d::detail
