// The rows from which derivatives are computed.
#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "support/literal_derivatives.hpp"
#include "velmar_2D/derivatives/derivatives.hpp"

namespace velmar_2d::tests {
namespace {

using detail::Candidates;
using detail::Stencil;

void expect_rows(const LiteralRows& expected, const Candidates& table, int n, bool with_distances) {
  ASSERT_EQ(static_cast<int>(expected.size()), n);
  for (int i = 0; i < n; ++i) {
    const LiteralRow& row = expected[static_cast<std::size_t>(i)];
    ASSERT_EQ((std::array{row.id, row.x, row.y, row.value}),
              (std::array{table.id[i], table.x[i], table.y[i], table.value[i]}))
        << "row " << i;
    ASSERT_TRUE(!with_distances || row.distance2 == table.distance2[i]);
  }
}

// Few ids and places, so that repetitions and equal distances abound.
TEST(CandidateOrder, IsThatOfRepeatedSelection) {
  std::mt19937 random(5);
  std::uniform_int_distribution<int> length(0, 40), id(1, 45), place(-3, 3);
  detail::Workspace work;
  for (int trial = 0; trial < 3000; ++trial) {
    Candidates list{};
    LiteralRows rows;
    int n_list = length(random);
    for (int i = 0; i < n_list; ++i) {
      rows.push_back(
          {double(id(random)), double(place(random)), double(place(random)), double(i), 0});
      list.id[i] = rows.back().id;
      list.x[i] = rows.back().x;
      list.y[i] = rows.back().y;
      list.value[i] = rows.back().value;
    }
    literal_unique(rows);
    detail::unique_in_list(work, list, n_list);
    expect_rows(rows, list, n_list, false);

    Stencil stencil{};
    LiteralRows known;
    for (int i = 0; i < 4; ++i) {
      known.push_back({double(id(random)), 0.5 * i, 0.25, 0.0, 0.0});
      stencil.id[i] = known.back().id;
      stencil.x[i] = known.back().x;
      stencil.y[i] = known.back().y;
    }
    literal_order(known, rows);
    detail::unique_in_lists(work, stencil, 4, list, n_list);
    expect_rows(rows, list, n_list, true);
  }
}

// A fit that is accepted without an estimate would have been accepted with it.
TEST(CentredFit, AcceptsByTheConditionEstimate) {
  std::mt19937 random(8);
  std::uniform_int_distribution<int> step(-2, 2), nb_rows(6, 9);
  std::uniform_real_distribution<double> shift(-1.0, 1.0), decade(-7.0, 0.0);
  int nb_accepted = 0, nb_refused = 0;
  detail::Workspace work;
  for (int trial = 0; trial < 6000; ++trial) {
    Cell c;
    c.x = 100.0;
    c.y = -3.0;
    Stencil list{};
    LiteralRows rows;
    const double displacement = std::pow(10.0, decade(random));
    for (int i = 0, n_list = nb_rows(random); i < n_list; ++i) {
      list.x[i] = c.x + (i == 0 ? 0.0 : step(random) + displacement * shift(random));
      list.y[i] = c.y + (i == 0 ? 0.0 : step(random) / 2 + displacement * shift(random));
      rows.push_back({0.0, list.x[i], list.y[i], 0.0, 0.0});
    }
    const double rcond = literal_condition(c, rows), least = rows.size() == 6 ? 1e-6 : 1e-8;
    if (std::abs(rcond / least - 1.0) < 1e-3) continue;  // rounding decides
    double unused[5];
    bool succ = false;
    detail::fit_hessian_centred(detail::default_state(), work, &c, list,
                                static_cast<int>(rows.size()), unused[0], unused[1], unused[2],
                                unused[3], unused[4], succ);
    ASSERT_EQ(succ, rcond >= least) << "trial " << trial << ", estimate " << rcond;
    ++(succ ? nb_accepted : nb_refused);
  }
  EXPECT_GE(nb_accepted, 1000);
  EXPECT_GE(nb_refused, 1000);
}

TEST(Alignment, OfRows) {
  using detail::are_4pts_not_aligned;
  using detail::are_6pts_not_aligned_3_by_3;
  // The tolerance follows the stencil's size, not its place.
  for (const auto& [x0, unit] : {std::pair{0.0, 1.0}, std::pair{1e3, 1e-3}, std::pair{0.0, 1e9}}) {
    const auto rows_at = [x0 = x0, unit = unit](const double(&places)[6][2]) {
      Stencil list{};
      for (int i = 0; i < 6; ++i) {
        list.x[i] = x0 + unit * places[i][0];
        list.y[i] = x0 + unit * places[i][1];
      }
      return list;
    };
    // o o o        three on each of several lines, four on none
    // o o o
    const Stencil block = rows_at({{0, 0}, {1, 0}, {2, 0}, {0, 1}, {1, 1}, {2, 1}});
    EXPECT_TRUE(are_4pts_not_aligned(block, 6));
    EXPECT_FALSE(are_6pts_not_aligned_3_by_3(block));
    // A triangle of six: three lines of three, but no two of them apart.
    EXPECT_TRUE(
        are_6pts_not_aligned_3_by_3(rows_at({{0, 0}, {1, 0}, {2, 0}, {0, 1}, {1, 1}, {0, 2}})));
    // Four on a slanted line, the last of them off by little or by much.
    for (const auto& [off, on_line] : {std::pair{1e-11, true}, std::pair{1e-4, false}}) {
      const Stencil slanted = rows_at({{5, 5}, {0, 0}, {1, 2}, {-3, 1}, {2, 4}, {-1, -2 + off}});
      EXPECT_EQ(are_4pts_not_aligned(slanted, 6), !on_line);
      EXPECT_TRUE(are_4pts_not_aligned(slanted, 5));
    }
    // Two crossing lines of three, in an order that mixes them.
    EXPECT_FALSE(
        are_6pts_not_aligned_3_by_3(rows_at({{0, 1}, {1, 1}, {0, 3}, {2, 2}, {0, -2}, {-4, -4}})));
  }
  Cell c, w, e, n, s, far;
  w.x = -1, e.x = 1, n.y = 1, s.y = -1, far.x = 3;
  c.w = &w, c.e = &e, c.n = &n, c.s = &s;
  EXPECT_TRUE(detail::are_4pts_not_aligned_neighbors(&c));
  c.ne = &far;
  EXPECT_FALSE(detail::are_4pts_not_aligned_neighbors(&c));
}

}  // namespace
}  // namespace velmar_2d::tests
