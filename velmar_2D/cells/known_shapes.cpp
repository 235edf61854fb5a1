// The catalogue of known shapes, which the compiler derives from the geometry of nine
// representatives.
#include "velmar_2D/cells/cells.hpp"

namespace velmar_2d::detail {

namespace {

/// The representatives of types 1 to 9. Directions n, ne, e, se, s, sw, w, nw; '.' no node, '0' a
/// node at the largest distance, '1' at that distance / sqrt 2, '2' at half of it, and so on.
constexpr std::array<std::string_view, 9> representatives = {
    ".0.0.0.0",   // a square; refinement then puts nearer nodes between the four:
    ".0.0.010",   // one,
    ".0.01.10",   // two next to each other,
    ".1.10.01",   // three,
    ".0.01210",   // two, and between them a still nearer one,
    ".01.1210",   // three, and one of those,
    ".012.210",   // three, and two of those,
    ".010.010",   // two opposite each other,
    ".0123210"};  // three, two and one

constexpr int first_side_type = 11, first_corner_type = 31;

constexpr Surroundings surroundings_from(std::string_view representative) {
  Surroundings s;
  for (int d = 0; d < nb_directions; ++d) {
    const char there = representative[static_cast<std::size_t>(d)];
    const int stored = there - '0' + 1;
    if (there != '.') s.levels |= in_direction(d, static_cast<std::uint64_t>(stored));
  }
  return s;
}

constexpr bool same(const Surroundings& a, const Surroundings& b) {
  return a.levels == b.levels && a.sides == b.sides;
}

/// What remains of the surroundings if the domain ends here on a straight side. Right only where
/// they are symmetric about that side, so that the far half of the cell mirrors the near one.
constexpr Surroundings cut(Surroundings s, int side) {
  for (int d = side - 1; d <= side + 1; ++d) s.levels &= ~in_direction(d, 0xff);
  s.sides |= in_direction(side, 0x80);
  return s;
}
constexpr bool symmetric_about(const Surroundings& s, int side) {
  return same(s, mirrored(s, 2 * side + 4));
}

/// Fills in areas and lengths. A half face is as long as half the distance r to the neighbour, so
/// each half stands for a triangle of area r^2 / 8.
///
///          | 2  |          A domain side is bounded where the nearer of the two links on its
///       ---c----.---- e    hand meets it: half way to the node along the side, or where the
///          |  \ |          bisector of the diagonal link reaches it, as far away as the
///          |   se          diagonal link is wide.
constexpr void measure(KnownShape& shape, int level) {
  const Surroundings& s = shape.surroundings;
  const MissingHalves missing = missing_halves(s);
  std::array<double, nb_directions> along_side{};  // what a link leaves of a straight side
  for (int d = 0; d < nb_directions; ++d) {
    if (byte_at(s.levels, d) == 0) continue;
    const auto i = static_cast<std::size_t>(d);
    const int spacing_level = static_cast<int>(byte_at(s.levels, d)) - 1 + level;
    const int halves = (byte_at(missing.clockwise, d) == 0 ? 1 : 0) +
                       (byte_at(missing.anticlockwise, d) == 0 ? 1 : 0);
    shape.distance[i] = exact_power_of_2(-((spacing_level + 1) >> 1));
    shape.length[i] = halves * shape.distance[i] / 2;
    shape.area += halves * exact_power_of_2(level - spacing_level) / 8;
    along_side[i] = shape.distance[i] / (d % 2 == 0 ? 2 : 1);
  }
  for (const int side : straight_directions) {
    if (byte_at(s.sides, side) == 0) continue;
    for (const int hand : {1, -1}) {
      const int along = (side + 2 * hand) & 7, diagonal = (side + 3 * hand) & 7;
      const bool cut_by_diagonal = byte_at(s.levels, diagonal) > byte_at(s.levels, along);
      shape.side[static_cast<std::size_t>(side / 2)] +=
          along_side[static_cast<std::size_t>(cut_by_diagonal ? diagonal : along)];
    }
  }
}

struct Catalogue {
  std::array<KnownShape, nb_known_shapes> shapes{};
  std::size_t n = 0;
  std::array<std::uint8_t, 65536> by_signature{};  ///< index into shapes plus 1, or 0

  constexpr Catalogue() {
    add_interior();
    const std::size_t interior_end = n;
    add_cut(interior_end, first_side_type, 1);
    add_cut(interior_end, first_corner_type, 2);
  }

  static constexpr std::size_t index(const Signature& signature) {
    return static_cast<std::size_t>(signature[0]) * 256 + signature[1];
  }
  constexpr bool knows(const Surroundings& s) const {
    return by_signature[index(signature_of(s))] != 0;
  }

  constexpr void add(const Surroundings& s, int type, int shift) {
    KnownShape& shape = shapes[n];
    shape.index = static_cast<std::uint8_t>(n);
    shape.signature = signature_of(s);
    shape.type = static_cast<std::uint8_t>(type);
    shape.shift = static_cast<std::uint8_t>(shift);
    shape.surroundings = s;
    int farthest = 0;
    while (byte_at(s.levels, farthest) != 1) ++farthest;
    measure(shape, farthest % 2);
    by_signature[index(shape.signature)] = static_cast<std::uint8_t>(++n);
  }

  /// All distinct images of a representative under the given turns and the east-west mirror.
  constexpr void add_orientations(const Surroundings& s, int type, int turn) {
    for (const int mirror : {0, 8}) {
      for (int shift = 0; shift < 8; shift += turn) {
        const Surroundings image = turned(mirror != 0 ? mirrored(s, 0) : s, shift);
        if (!knows(image)) add(image, type, mirror + shift);
      }
    }
  }

  constexpr void add_interior() {
    int type = 0;
    for (const std::string_view r : representatives) {
      add_orientations(surroundings_from(r), ++type, 1);
    }
  }

  /// The symmetric interior shapes, cut by the north side alone or by the north and east sides.
  /// An eighth turn would lead a side off the lattice's axes, so only quarter turns count.
  constexpr void add_cut(std::size_t interior_end, int first_type, int nb_sides) {
    int type = first_type;
    for (std::size_t i = 0; i < interior_end; ++i) {
      Surroundings s = shapes[i].surroundings;
      bool symmetric = true;
      for (int side = north; side < 2 * nb_sides; side += 2) {
        symmetric = symmetric && symmetric_about(shapes[i].surroundings, side);
        s = cut(s, side);
      }
      if (symmetric && !knows(s)) add_orientations(s, type++, 2);
    }
  }
};

constexpr Catalogue catalogue;
static_assert(catalogue.n == nb_known_shapes);

}  // namespace

std::span<const KnownShape, nb_known_shapes> known_shapes() { return catalogue.shapes; }

const KnownShape* known_shape(const Signature& signature) {
  const std::size_t i = catalogue.by_signature[Catalogue::index(signature)];
  return i == 0 ? nullptr : &catalogue.shapes[i - 1];
}

}  // namespace velmar_2d::detail
