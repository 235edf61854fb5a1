// The rows from which derivatives are computed.
#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "velmar_2D/derivatives/derivatives.hpp"

namespace velmar_2d::tests {
namespace {

using detail::Candidates;
using detail::Stencil;

using Row = std::array<double, 5>;  // id, x, y, value, squared distance

std::vector<Row> rows_of(const Candidates& list, int n_list) {
  std::vector<Row> rows;
  for (int i = 0; i < n_list; ++i) {
    rows.push_back({list.id[i], list.x[i], list.y[i], list.value[i], list.distance2[i]});
  }
  return rows;
}

void add_row(Candidates& list, int& n_list, double id, double x, double y) {
  list.id[n_list] = id;
  list.x[n_list] = x;
  list.y[n_list] = y;
  list.value[n_list] = n_list + 1;
  ++n_list;
}

// Distances stay where they are while the rows behind a selected one move up:
//
//     id         1  2  3  4  5  6  7
//     distance   5  7  4  6  2  9  3        2 selects 5, 6 and 7, then 4 selects 3 and 4, ...
TEST(CandidateOrder, LeavesDistancesBehind) {
  detail::Workspace work;
  Candidates list{};
  int n_list = 0;
  for (const double id : {6, 2, 7, 1, 2, 5, 9, 4, 3, 7}) {
    const double distance2[] = {0, 5, 7, 4, 6, 2, 9, 3, 0, 1};
    add_row(list, n_list, id, 0.0, std::sqrt(distance2[static_cast<int>(id)]));
  }
  const Stencil stencil{.id = {9}, .x = {}, .y = {}, .value = {}, .distance2 = {}};
  detail::unique_in_list(work, list, n_list);
  detail::unique_in_lists(work, stencil, 1, list, n_list);
  std::vector<std::array<double, 3>> found;  // id, place in the list at first, distance
  for (const Row& row : rows_of(list, n_list))
    found.push_back({row[0], row[3], std::round(row[4])});
  EXPECT_EQ(found,
            (std::vector<std::array<double, 3>>{
                {5, 6, 2}, {6, 1, 2}, {7, 3, 2}, {3, 9, 4}, {4, 8, 4}, {1, 4, 5}, {2, 2, 5}}));
}

// Few ids and places, so that repetitions and equal distances abound.
TEST(CandidateOrder, ByBlocksIsThatOfRepeatedSelection) {
  detail::Workspace work;
  std::mt19937 random(5);
  std::uniform_int_distribution<int> length(0, 40), id(1, 45), place(-3, 3);
  for (int trial = 0; trial < 3000; ++trial) {
    work.order = trial % 2 == 0 ? detail::CandidateOrder::by_age : detail::CandidateOrder::by_place;
    Candidates list{};
    int n_list = 0;
    for (int left = length(random); left > 0; --left) {
      const int number = id(random);
      const bool by_place = work.order == detail::CandidateOrder::by_place;
      add_row(list, n_list, number, by_place ? number % 7 - 3 : place(random),
              by_place ? number / 7 - 3 : place(random));
    }
    Stencil stencil{};
    for (int i = 0; i < 4; ++i) {
      stencil.id[i] = id(random);
      stencil.x[i] = 0.5 * i;
      stencil.y[i] = 0.25;
    }
    Candidates ordered = list;
    int n_ordered = n_list;
    detail::order_candidates(work, stencil, 4, ordered, n_ordered);
    detail::unique_in_list(work, list, n_list);
    detail::unique_in_lists(work, stencil, 4, list, n_list);
    ASSERT_EQ(rows_of(ordered, n_ordered), rows_of(list, n_list));
  }
}

/// Condition estimate in coordinates relative to the node, in units of the largest distance.
double condition(const Cell& c, const Stencil& list, int n_list) {
  double unit = 0.0, matrix[36] = {};
  for (int i = 0; i < n_list; ++i) {
    unit = std::max(unit, std::hypot(list.x[i] - c.x, list.y[i] - c.y));
  }
  for (int i = 0; i < n_list; ++i) {
    const double x = (list.x[i] - c.x) / unit, y = (list.y[i] - c.y) / unit;
    const double p[6] = {1.0, x, y, x * x, y * y, y * x};
    for (int j = 0; j < 6; ++j) {
      if (n_list == 6) matrix[i + 6 * j] = p[j];
      for (int k = 0; k < 6 && n_list > 6; ++k) matrix[j + 6 * k] += p[j] * p[k];
    }
  }
  std::int32_t pivots[6];
  double rcond = -1.0, work[6];
  detail::dgeco(matrix, 6, pivots, rcond, work);
  return rcond;
}

// A fit that is accepted without an estimate would have been accepted with it.
TEST(CentredFit, AcceptsByTheConditionEstimate) {
  const detail::State& state = detail::default_state();
  detail::Workspace work;
  std::mt19937 random(8);
  std::uniform_int_distribution<int> step(-2, 2), nb_rows(6, 9);
  std::uniform_real_distribution<double> shift(-1.0, 1.0), decade(-7.0, 0.0);
  int nb_accepted = 0, nb_refused = 0;
  for (int trial = 0; trial < 6000; ++trial) {
    Cell c;
    c.x = 100.0;
    c.y = -3.0;
    Stencil list{};
    const double displacement = std::pow(10.0, decade(random));
    const int n_list = nb_rows(random);
    for (int i = 0; i < n_list; ++i) {
      list.x[i] = c.x + (i == 0 ? 0.0 : step(random) + displacement * shift(random));
      list.y[i] = c.y + (i == 0 ? 0.0 : step(random) / 2 + displacement * shift(random));
      list.value[i] = shift(random);
    }
    const double rcond = condition(c, list, n_list), least = n_list == 6 ? 1e-6 : 1e-8;
    if (std::abs(rcond / least - 1.0) < 1e-3) continue;  // rounding decides
    std::array<double, 5> rule{}, proven{};
    for (const auto& [fit, d] : {std::pair{&detail::fit_hessian_centred, &rule},
                                 std::pair{&detail::fit_hessian_centred_by_proof, &proven}}) {
      bool succ = false;
      fit(state, work, &c, list, n_list, (*d)[0], (*d)[1], (*d)[2], (*d)[3], (*d)[4], succ);
      ASSERT_EQ(succ, rcond >= least) << "trial " << trial << ", estimate " << rcond;
    }
    ASSERT_EQ(rule, proven);
    ++(rcond >= least ? nb_accepted : nb_refused);
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
