// The position index and the rules by which a node's level rises and falls.
#include <cmath>
#include <limits>

#include "scenarios/scenarios.hpp"
#include "support/mesh_view.hpp"
#include "velmar_2D/internal.hpp"

namespace velmar_2d::tests {
namespace {

using namespace detail;

class PositionIndex : public MeshTest {
 protected:
  void SetUp() override {
    MeshTest::SetUp();
    dist_0 = 1.0;
    domain.largest_coordinate = 0.0;
  }
};

std::pair<std::int32_t, std::int32_t> fraction(double x, const double* tol = nullptr) {
  std::int32_t n = -99, d = -99;
  real_to_rat(n, d, x, tol);
  return {n, d};
}

TEST_F(PositionIndex, FractionsByNearestIntegerExpansion) {
  using Fraction = std::pair<std::int32_t, std::int32_t>;
  EXPECT_EQ(fraction(0.6), Fraction(3, 5));  // 1/1, -2/-3, -3/-5
  EXPECT_EQ(fraction(0.0), Fraction(0, 1));
  EXPECT_EQ(fraction(7.0), Fraction(7, 1));
  EXPECT_EQ(fraction(-2.5), Fraction(-5, 2));
  EXPECT_EQ(fraction(0.1), Fraction(1, 10));
  EXPECT_EQ(fraction(1.0 / 3.0), Fraction(1, 3));
  EXPECT_EQ(fraction(5.0 + std::ldexp(1.0, -20)), Fraction(5 * (1 << 20) + 1, 1 << 20));
  const double wide = 0.5, narrow = 1e-30;
  EXPECT_EQ(fraction(0.6, &wide), Fraction(1, 1)) << "no upper bound on the tolerance";
  EXPECT_EQ(fraction(0.6, &narrow), Fraction(3, 5)) << "never below 1e-12";
}

// No fraction is close: the expansion must end, with a denominator that is not negative or has
// wrapped, whatever it is.
TEST_F(PositionIndex, ExpansionEndsOnWhatIsNoFraction) {
  for (const double x :
       {std::sqrt(2.0) * 1e-4, 1e300, -1e300, 1e-300, 3e9 + 0.3,
        std::numeric_limits<double>::infinity(), std::numeric_limits<double>::quiet_NaN()}) {
    EXPECT_NE(fraction(x).second, -99) << x;
  }
}

TEST_F(PositionIndex, CeilingOfTheLogarithm) {
  const std::pair<std::int32_t, std::int32_t> cases[] = {
      {0, 1},  {1, 0},        {2, 1},
      {3, 2},  {4, 2},        {5, 3},
      {-7, 0}, {1 << 30, 30}, {std::numeric_limits<std::int32_t>::max(), 31}};
  for (const auto& [n, log] : cases) EXPECT_EQ(log2_special(n), log) << n;
}

TEST_F(PositionIndex, OfOffsets) {
  const struct {
    double x, y;
    std::int32_t ipos;
  } cases[] = {{0, 0, 0},         {1, 2, 0},
               {3, 0, 0},         {-4, 7, 0},
               {0.5, 0.5, 1},     {-0.5, 0.5, 1},
               {0.5, 0, 2},       {1, 0.5, 2},
               {0.25, 0.25, 3},   {0.75, 0.25, 3},
               {0.25, 0.5, 4},    {0.25, 0, 4},
               {0.125, 0.375, 5}, {1.0 / 3, 1.0 / 3, 3},
               {0.1, 1.0, 8},     {0.1, 0.1, 7}};
  for (const double spacing : {1.0, 0.3}) {
    dist_0 = spacing;
    for (const auto& c : cases)
      EXPECT_EQ(true_ipos(c.x * spacing, c.y * spacing), c.ipos) << c.x << ", " << c.y;
  }
}

// A coordinate near 1e6 is good to 1e-10: with a spacing of 0.1 that is 1e-9 of the spacing.
TEST_F(PositionIndex, FarFromTheOrigin) {
  for (const double west : {1e3, 1e4 + 1.0 / 3, 1e5 + 0.7, 1e6 + 0.1}) {
    scenarios::set_domain(west, west + 0.7, west, west + 0.7);
    double y_max = 0.0;
    init_mesh(scenarios::all_dirichlet, 8, 8, 20, y_max);
    for (int k = 1; k <= 10; ++k) {
      const double step = std::ldexp(dist_0, -k);
      const double odd = 2 * 9 + 1, even = 2 * 20;
      const auto ipos = [&](double i, double j) {
        return true_ipos((x_min + i * step) - x_min, (y_min + j * step) - y_min);
      };
      EXPECT_EQ(ipos(odd, odd), 2 * k - 1) << west;
      EXPECT_EQ(ipos(odd, even), 2 * k) << west;
      EXPECT_EQ(ipos(0, odd), 2 * k) << west;
    }
    delete_mesh();
  }
}

// A node with Cells at the given directions (bits, 1 << direction) and Boundaries at others.
struct Star {
  std::array<Cell, 8> neighbours;
  Boundary side;
  Cell centre;
  Star(int cells, int sides) {
    for (int d = 0; d < 8; ++d) {
      neighbours[static_cast<std::size_t>(d)].id = 100 + d;
      if ((cells >> d & 1) != 0) link(centre, d) = &neighbours[static_cast<std::size_t>(d)];
      if ((sides >> d & 1) != 0) link(centre, d) = &side;
    }
  }
  const Cell* node() const { return &centre; }
  Cell& neighbour(int d) { return neighbours[static_cast<std::size_t>(d)]; }
};

constexpr int bit(int direction) { return 1 << (direction & 7); }

TEST(LevelRules, ReserveAfterARise) {
  constexpr int straight = 0x55, diagonal = 0xAA, to_side_n = 1;
  const struct {
    const char* name;
    int on_boundary, new_level, cells, sides, expected;
  } cases[] = {
      {"inside, 4 links", 0, 5, diagonal, 0, 4},
      {"inside, 5, newcomer faces a node", 0, 4, bit(0) | bit(4) | bit(2) | bit(3) | bit(5), 0, 3},
      {"inside, 5, newcomer faces none", 0, 4, bit(0) | bit(2) | bit(3) | bit(5) | bit(6), 0, 2},
      {"inside, 6", 0, 3, straight | bit(1) | bit(3), 0, 2},
      {"inside, 7", 0, 3, straight | bit(1) | bit(3) | bit(5), 0, 0},
      {"inside, 8", 0, 4, 0xFF, 0, 0},
      {"inside, 3", 0, 4, bit(0) | bit(2) | bit(4), 0, 0},
      {"side, even, sharp corner", 1, 4, bit(3) | bit(4) | bit(5) | bit(6), to_side_n, 1},
      {"side, even, 3 links", 1, 4, bit(2) | bit(4) | bit(6), to_side_n, 2},
      {"side, even, 4 links", 1, 4, bit(2) | bit(4) | bit(5) | bit(6), to_side_n, 1},
      {"side, even, 5 links", 1, 4, bit(2) | bit(3) | bit(4) | bit(5) | bit(6), to_side_n, 0},
      {"side, odd, 2 links", 1, 3, bit(3) | bit(5), to_side_n, 3},
      {"side, odd, 3 links", 1, 3, bit(3) | bit(4) | bit(5), to_side_n, 2},
      {"side, odd, 4 links", 1, 3, bit(2) | bit(3) | bit(4) | bit(5), to_side_n, 0},
      {"corner, odd", 2, 3, bit(5), bit(0) | bit(2), 2},
      {"corner, even", 2, 4, bit(4) | bit(6), bit(0) | bit(2), 1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Star star(c.cells, c.sides);
    star.centre.on_boundary = c.on_boundary;
    star.centre.level = c.new_level - 1;
    star.centre.reserve = 1;
    star.centre.signature_set = true;
    int newcomer = 0;
    while ((c.cells & bit(newcomer)) == 0) ++newcomer;
    star.neighbour(newcomer).level = c.new_level;
    update_level(&star.centre, &star.neighbour(newcomer));
    EXPECT_EQ(star.centre.level, c.new_level);
    EXPECT_EQ(star.centre.reserve, c.expected);
    EXPECT_FALSE(star.centre.signature_set);
  }
}

TEST(LevelRules, OnlyTheLastNeighbourOneLevelFinerRaises) {
  Star star(0x55, 0);
  Cell& c = star.centre;
  const auto announce = [&](std::int32_t level) {
    star.neighbour(0).level = level;
    c.signature_set = true;
    update_level(&c, &star.neighbour(0));
    EXPECT_FALSE(c.signature_set);
    return std::pair(c.level, c.reserve);
  };
  EXPECT_EQ(announce(0), std::pair(0, 4)) << "same level";
  EXPECT_EQ(announce(2), std::pair(0, 4)) << "two levels finer";
  EXPECT_EQ(announce(1), std::pair(0, 3));
  EXPECT_EQ(announce(1), std::pair(0, 2));
  EXPECT_EQ(announce(1), std::pair(0, 1));
  EXPECT_EQ(announce(1), std::pair(1, 4));
  c.reserve = 0;
  EXPECT_EQ(announce(2), std::pair(1, -1)) << "a reserve of 0 never raises";
}

TEST(LevelRules, SharpCornersNearEverySide) {
  for (const int side : {0, 2, 4, 6}) {
    const int one_hand = side + 2, other_hand = side - 2;
    const int beside = bit(one_hand) | bit(other_hand);
    const auto sharp = [&](int cells, int sides) {
      return have_sharp_corner_near_boundary(Star(cells, sides | bit(side)).node());
    };
    EXPECT_FALSE(sharp(beside | bit(side + 3) | bit(side - 3), 0)) << side;
    EXPECT_TRUE(sharp(bit(other_hand) | bit(side + 3), 0)) << side;
    EXPECT_TRUE(sharp(bit(one_hand) | bit(side - 3), 0)) << side;
    EXPECT_FALSE(sharp(bit(side + 3) | bit(one_hand), 0)) << "nothing beyond the gap " << side;
    EXPECT_FALSE(have_sharp_corner_near_boundary(Star(bit(side + 3), 0).node())) << "inside";
  }
}

TEST(LevelRules, OppositeNeighbourIsFoundById) {
  for (int d = 0; d < 8; ++d) {
    Star star(bit(d) | bit(d + 4), 0);
    Cell same_id;
    same_id.id = star.neighbour(d).id;
    EXPECT_TRUE(side_on_opposite(&star.centre, &same_id));
    link(star.centre, d + 4) = &star.side;
    EXPECT_FALSE(side_on_opposite(&star.centre, &same_id)) << "a side is no neighbour";
    same_id.id = 1;
    EXPECT_FALSE(side_on_opposite(&star.centre, &same_id));
  }
  EXPECT_EQ(count_nb_sides(Star(0x5B, 0x04).node()), 5);
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
    c.signature_set = true;
    downdate_level(&c, row.removed_level);
    EXPECT_EQ(std::pair(c.level, c.reserve), std::pair(row.expected_level, row.expected_reserve))
        << "on_boundary " << row.on_boundary << " level " << row.level << " reserve " << row.reserve
        << " removed " << row.removed_level;
    EXPECT_FALSE(c.signature_set);
  }
}

}  // namespace
}  // namespace velmar_2d::tests
