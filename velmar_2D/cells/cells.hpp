// The control cell of a node: what its links look like, and the catalogue of known shapes.
//
// The control cell is the Voronoi cell of a node among its linked neighbours, cut by the domain.
// On the lattice every link has a spacing level l: its length is dist_0 / 2^(l/2), with l even for
// straight and odd for diagonal links. Where all links fit together, the eight spacing levels alone
// fix the shape, and turning or mirroring the shape is turning or mirroring them. So they are kept
// as one Ring: a 64-bit word with one byte per direction, in which an eighth turn is a rotation.
#pragma once

#include "velmar_2D/mesh/state.hpp"

namespace velmar_2d::detail {

// ---------------------------------------------------------------------------------------------
// One byte per direction
// ---------------------------------------------------------------------------------------------

/// Byte d (bits 8d to 8d+7) belongs to direction d.
using Ring = std::uint64_t;

inline constexpr Ring ring_of_ones = 0x0101010101010101;
inline constexpr Ring ring_of_top_bits = 0x8080808080808080;

constexpr Ring in_direction(int direction, std::uint64_t byte) {
  return byte << (8 * (direction & 7));
}
constexpr unsigned byte_at(Ring ring, int direction) {
  return static_cast<unsigned>(ring >> (8 * (direction & 7))) & 0xffU;
}
/// What was at d is at d + eighths afterwards.
constexpr Ring turned(Ring ring, int eighths) { return std::rotl(ring, 8 * (eighths & 7)); }
/// What was at d is at (axis - d) afterwards: axis 0 swaps east and west, axis 4 north and south.
constexpr Ring mirrored(Ring ring, int axis) {
  Ring result = 0;
  for (int d = 0; d < nb_directions; ++d) result |= in_direction(axis - d, byte_at(ring, d));
  return result;
}
/// Top bit of every byte in which a is larger than b. Bytes of both must be below 127.
constexpr Ring larger(Ring a, Ring b) {
  return ((a | ring_of_top_bits) - (b + ring_of_ones)) & ring_of_top_bits;
}
/// Top bit of every byte that is not zero. Bytes must be below 128.
constexpr Ring occupied(Ring ring) { return (ring + 0x7f * ring_of_ones) & ring_of_top_bits; }
/// The top bits of a ring as signature bits: n 128, ne 64, e 32, se 16, s 8, sw 4, w 2, nw 1.
constexpr std::uint8_t signature_bits(Ring top_bits) {
  // The product gathers the eight bits in its highest byte, direction 0 first.
  return static_cast<std::uint8_t>(((top_bits >> 7) * 0x8040201008040201) >> 56);
}

// ---------------------------------------------------------------------------------------------
// The surroundings of a node
// ---------------------------------------------------------------------------------------------

/// Spacing levels are stored above this offset, so that 0 is left for "no node in this direction".
/// The lowest one, -1, is the diagonal of a square of the base grid.
inline constexpr int spacing_level_offset = 2;
inline constexpr int highest_spacing_level = 120;
/// Stored for a Cell that is not where the lattice would have it.
inline constexpr unsigned off_lattice = 126;

/// What the links of a node designate.
struct Surroundings {
  Ring levels = 0;  ///< spacing level + offset where there is a Cell, otherwise 0
  Ring sides = 0;   ///< top bit where there is a Boundary

  /// Of a Cell on the lattice.
  int spacing_level(int direction) const {
    return static_cast<int>(byte_at(levels, direction)) - spacing_level_offset;
  }
};

constexpr Surroundings turned(const Surroundings& s, int eighths) {
  return {turned(s.levels, eighths), turned(s.sides, eighths)};
}
constexpr Surroundings mirrored(const Surroundings& s, int axis) {
  return {mirrored(s.levels, axis), mirrored(s.sides, axis)};
}

using Signature = std::array<std::uint8_t, 2>;

/// Faces that lack a half, by the side on which it is missing; top bits.
struct MissingHalves {
  Ring clockwise = 0, anticlockwise = 0;
};

/// A face loses a half to a nearer node in the next direction, and to a domain side (which passes
/// through the node itself) a quarter turn away. Directions without a face hold no meaning.
constexpr MissingHalves missing_halves(const Surroundings& s) {
  return {larger(turned(s.levels, -1), s.levels) | turned(s.sides, -2),
          larger(turned(s.levels, 1), s.levels) | turned(s.sides, 2)};
}

constexpr Ring full_faces(const Surroundings& s) {
  const MissingHalves missing = missing_halves(s);
  return occupied(s.levels) & ~(missing.clockwise | missing.anticlockwise);
}

/// signature[1] of a node whose links do not fit a known shape although their pattern might: no
/// known shape has a full face in a direction without a node.
inline constexpr std::uint8_t no_fit = 255;

/// Reads the links of a node and the positions of the nodes that they designate.
Surroundings surroundings_of(const Domain& domain, const Cell& c);

constexpr Signature signature_of(const Surroundings& s) {
  return {signature_bits(occupied(s.levels)), signature_bits(full_faces(s))};
}

// ---------------------------------------------------------------------------------------------
// Known shapes (known_shapes.cpp)
// ---------------------------------------------------------------------------------------------

/// One orientation of a known shape. Areas and lengths are relative: a node at level L has the
/// units
///     area:    dist_0^2 / 2^L
///     length:  straight h = dist_0 / 2^(L/2), diagonal h sqrt(2); L/2 rounded down
/// so that the table holds sums of few powers of 2, and both ends of a link, whatever their levels,
/// get the same length to the last bit.
struct KnownShape {
  Signature signature{};
  std::uint8_t type = 0, shift = 0;  ///< as given by cell_type()
  std::uint8_t index = 0;            ///< in the catalogue, below nb_known_shapes
  Surroundings surroundings;         ///< spacing levels above the node's level, plus 1
  double area = 0.0;
  std::array<double, nb_directions> distance{}, length{};  ///< of the faces; 0 where there is none
  std::array<double, 4> side{};                            ///< of the domain sides n, e, s, w
};

/// Inside, on sides, at corners.
inline constexpr std::size_t nb_known_shapes = 70 + 64 + 16;

/// All of them, by their index.
std::span<const KnownShape, nb_known_shapes> known_shapes();
/// The shape with this signature, or nullptr.
const KnownShape* known_shape(const Signature& signature);

// Recognising them (surroundings.cpp)

/// What a look at a node tells: its signature and, unless nothing known fits, its shape.
struct NodeShape {
  Signature signature{};
  const KnownShape* shape = nullptr;
};

/// Classifies a node, by its cached signature where that holds. Reads the neighbours only if need
/// be.
NodeShape look_at(const Domain& domain, const Cell& c);
/// The shape by what the neighbours' positions tell, whatever is cached. More than the signature
/// decides: the same faces may be complete around a node whose links have other lengths.
NodeShape look_around(const Domain& domain, const Cell& c);
/// The same; keeps the signature, and gives the warning for unknown shapes.
const KnownShape* classify(const State& state, Cell& c);

/// Area for a signature, in units of dist_0^2 / 2^level; negative where no shape is known.
double quick_cell_area(const Signature& signature);

/// Whether `area` of a node is an area: negative where none is known; above level 30 what an
/// insertion by the free procedures leaves is negative or infinite.
inline bool is_known_area(double area) {
  return area >= 0.0 && area < std::numeric_limits<double>::infinity();
}

/// Units of length for a node at this level: straight and diagonal.
inline std::array<double, 2> length_units(const Domain& domain, std::int32_t level) {
  constexpr double sqrt_of_2 = 1.4142135623730951;
  const double straight = domain.dist_0 * exact_power_of_2(-(level >> 1));
  return {straight, straight * sqrt_of_2};
}
/// Faces of a cell of known shape at this level; leaves `neighbour` as it is.
void scale_known_shape(const Domain& domain, const KnownShape& shape, std::int32_t level,
                       CellFaces& faces);
inline double area_of(const Domain& domain, const KnownShape& shape, std::int32_t level) {
  return shape.area * domain.dist_0 * domain.dist_0 * exact_power_of_2(-level);
}

// ---------------------------------------------------------------------------------------------
// The control cell as a polygon, for any shape (cell_polygon.cpp)
// ---------------------------------------------------------------------------------------------

/// Corners relative to the node, anticlockwise.
struct Polygon {
  struct Corner {
    double x = 0.0, y = 0.0;
    int edge = 0;  ///< direction of the face from here to the next corner; plus 8 on a domain side
  };
  std::size_t n = 0;
  std::array<Corner, max_cell_corners> corners;

  /// No cut of a convex polygon exceeds the capacity; rounding must not either.
  void add(const Corner& corner) {
    if (n < corners.size()) corners[n++] = corner;
  }
  const Corner& after(std::size_t i) const { return corners[i + 1 < n ? i + 1 : 0]; }
};

/// By what the neighbours' positions tell.
Polygon polygon_of(const Domain& domain, const Cell& c);
/// The same for a known shape, in units of the straight length.
const Polygon& polygon_of(const KnownShape& shape);
double area_of(const Polygon& polygon);

// ---------------------------------------------------------------------------------------------
// What users ask for
// ---------------------------------------------------------------------------------------------

void cell_type(const State& state, Cell& c, std::int32_t& type, std::int32_t& shift);
double cell_area(const State& state, Cell& c);
void cell_faces(const State& state, const Cell& c, CellFaces& faces);
void cell_polygon(const State& state, const Cell& c, std::array<Point, max_cell_corners>& corners,
                  std::int32_t& n);

}  // namespace velmar_2d::detail
