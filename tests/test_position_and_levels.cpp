// The position index and the rules by which a node's level rises and falls.
#include <cmath>
#include <limits>

#include "support/mesh_view.hpp"
#include "velmar_2D/adapt/update_mesh_decl.hpp"

namespace velmar_2d::tests {
namespace {

using namespace detail;

using Pair = std::pair<std::int32_t, std::int32_t>;

Pair fraction(double x, double tolerance = 0.0) {
  std::int32_t n = -99, d = -99;
  real_to_rat(n, d, x, &tolerance);
  return {n, d};
}

TEST(PositionIndex, FractionsByNearestIntegerExpansion) {
  EXPECT_EQ(fraction(0.6), Pair(3, 5)) << "1/1, -2/-3, -3/-5; never below 1e-12";
  EXPECT_EQ(fraction(0.6, 0.5), Pair(1, 1)) << "no upper bound on the tolerance";
  EXPECT_EQ(fraction(0.0), Pair(0, 1));
  EXPECT_EQ(fraction(-2.5), Pair(-5, 2));
  EXPECT_EQ(fraction(5.0 + std::ldexp(1.0, -20)), Pair(5 * (1 << 20) + 1, 1 << 20));
  // No fraction is close: the expansion ends on something all the same.
  constexpr double infinity = std::numeric_limits<double>::infinity();
  for (const double x :
       {std::sqrt(2.0) * 1e-4, -1e300, 1e-300, 3e9 + 0.3, infinity, infinity - infinity}) {
    EXPECT_NE(fraction(x).second, -99) << x;
  }
  for (const auto& [n, log] : {Pair{0, 1},
                               {1, 0},
                               {2, 1},
                               {3, 2},
                               {4, 2},
                               {5, 3},
                               {-7, 0},
                               {std::numeric_limits<std::int32_t>::max(), 31}}) {
    EXPECT_EQ(log2_special(n), log) << n;
  }
}

TEST(PositionIndex, OfOffsets) {
  const struct {
    double x, y;
    std::int32_t ipos;
  } cases[] = {{0, 0, 0},      {-4, 7, 0},   {0.5, 0.5, 1},     {-0.5, 0.5, 1},
               {0.5, 0, 2},    {1, 0.5, 2},  {0.25, 0.25, 3},   {0.75, 0.25, 3},
               {0.25, 0.5, 4}, {0.25, 0, 4}, {0.125, 0.375, 5}, {1.0 / 3, 1.0 / 3, 3},
               {0.1, 1.0, 8},  {0.1, 0.1, 7}};
  for (const double spacing : {1.0, 0.3}) {
    Domain domain;
    domain.dist_0 = spacing;
    for (const auto& c : cases)
      EXPECT_EQ(true_ipos(domain, c.x * spacing, c.y * spacing), c.ipos) << c.x << ", " << c.y;
  }
}

constexpr int bit(int direction) { return 1 << direction; }

TEST(LevelRules, ReserveAfterARise) {
  constexpr int straight = 0x55, diagonal = 0xAA, to_side_n = 1;
  // Cells stand at the given directions, Boundaries at others; the first Cell is the newcomer.
  const struct {
    const char* name;
    int on_boundary, new_level, cells, sides, expected;
  } cases[] = {
      {"inside, 4 links", 0, 5, diagonal, 0, 4},
      {"inside, 5, newcomer faces a node", 0, 4, bit(0) | bit(4) | bit(2) | bit(3) | bit(5), 0, 3},
      {"inside, 5, newcomer faces none", 0, 4, bit(0) | bit(2) | bit(3) | bit(5) | bit(6), 0, 2},
      {"inside, 6", 0, 3, straight | bit(1) | bit(3), 0, 2},
      {"inside, 7", 0, 3, straight | bit(1) | bit(3) | bit(5), 0, 0},
      {"inside, 3", 0, 4, bit(0) | bit(2) | bit(4), 0, 0},
      {"side, even, sharp corner", 1, 4, bit(3) | bit(4) | bit(6), to_side_n, 1},
      {"side, even, sharp corner at the other hand", 1, 4, bit(2) | bit(4) | bit(5), to_side_n, 1},
      {"side, even, nothing beyond the gap", 1, 4, bit(4) | bit(5) | bit(6), to_side_n, 2},
      {"side, even, 3 links", 1, 4, bit(2) | bit(4) | bit(6), to_side_n, 2},
      {"side, even, 4 links", 1, 4, bit(2) | bit(4) | bit(5) | bit(6), to_side_n, 1},
      {"side, even, 5 links", 1, 4, bit(2) | bit(3) | bit(4) | bit(5) | bit(6), to_side_n, 0},
      {"side, odd, 2 links", 1, 3, bit(3) | bit(5), to_side_n, 3},
      {"side, odd, 3 links", 1, 3, bit(3) | bit(4) | bit(5), to_side_n, 2},
      {"side, odd, 4 links", 1, 3, bit(2) | bit(3) | bit(4) | bit(5), to_side_n, 0},
      {"corner, odd", 2, 3, bit(5), bit(0) | bit(2), 2},
      {"corner, even", 2, 4, bit(4) | bit(6), bit(0) | bit(2), 1},
  };
  for (const auto& row : cases) {
    std::array<Cell, 8> neighbours;
    Boundary side;
    Cell c, *newcomer = nullptr;
    for (int d = 0; d < 8; ++d) {
      Cell& neighbour = neighbours[static_cast<std::size_t>(d)];
      neighbour.id = 100 + d;
      if ((row.cells & bit(d)) != 0) link(c, d) = &neighbour;
      if ((row.sides & bit(d)) != 0) link(c, d) = &side;
      if (newcomer == nullptr && (row.cells & bit(d)) != 0) newcomer = &neighbour;
    }
    c.on_boundary = row.on_boundary;
    c.level = row.new_level - 1;
    c.reserve = 2;
    newcomer->level = row.new_level + 1;
    update_level(&c, newcomer);
    newcomer->level = row.new_level - 1;
    update_level(&c, newcomer);
    EXPECT_EQ(Pair(c.level, c.reserve), Pair(row.new_level - 1, 2)) << "not one level finer";
    newcomer->level = row.new_level;
    update_level(&c, newcomer);
    EXPECT_EQ(Pair(c.level, c.reserve), Pair(row.new_level - 1, 1)) << "one is still awaited";
    update_level(&c, newcomer);
    EXPECT_EQ(Pair(c.level, c.reserve), Pair(row.new_level, row.expected)) << row.name;
  }
}

TEST(LevelRules, FallWhenFinerNeighboursAreRemoved) {
  const struct {
    int on_boundary, level, reserve, removed_level, expected_level, expected_reserve;
  } cases[] = {
      {0, 2, 4, 3, 1, 1}, {0, 2, 3, 3, 2, 4}, {0, 3, 4, 4, 2, 1},
      {0, 3, 2, 4, 3, 3}, {1, 2, 2, 3, 1, 1}, {1, 2, 1, 3, 2, 2},
      {1, 3, 3, 4, 2, 1}, {1, 3, 2, 4, 3, 3}, {2, 2, 1, 3, 1, 1},
      {2, 3, 2, 4, 2, 1}, {2, 3, 1, 4, 3, 2}, {0, 2, 3, 2, 1, 1},  // same level: at once
      {1, 3, 3, 3, 2, 1}, {0, 2, 3, 1, 2, 3}, {0, 2, 3, 4, 2, 3},
      {0, 2, 5, 3, 2, 6},  // the threshold counts only where it is met exactly
  };
  for (const auto& row : cases) {
    Cell c;
    c.on_boundary = row.on_boundary;
    c.level = row.level;
    c.reserve = row.reserve;
    downdate_level(&c, row.removed_level);
    EXPECT_EQ(Pair(c.level, c.reserve), Pair(row.expected_level, row.expected_reserve))
        << "row " << &row - cases;
  }
}

}  // namespace
}  // namespace velmar_2d::tests
