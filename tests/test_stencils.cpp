// The rows from which derivatives are computed, the search among them, and the fits.
#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "support/child_process.hpp"
#include "velmar_2D/derivatives/derivatives.hpp"
#include "velmar_2D/velmar_2D.hpp"

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

// The last row runs through the candidates, then the one before it moves on: of all pairs, those
// that begin with the first row, then those with the second, in ascending order.
TEST(Search, TriesPairsInTheirOrder) {
  static std::vector<std::pair<double, double>> tried;
  const auto refuse = [](const detail::State&, detail::Workspace&, const Cell*,
                         const detail::Stencil& list, int n, double&, double&, double&, double&,
                         double&, bool&) { tried.emplace_back(list.x[n - 2], list.x[n - 1]); };
  detail::Workspace work;
  detail::Derivatives d;
  for (int row = 0; row < 4; ++row) work.list_2.x[row] = row + 1;
  std::copy_n(work.list_2.x, 2, work.list_1.x + 4);
  EXPECT_FALSE(detail::search(refuse, detail::default_state(), work, nullptr, 6, 2, 4, d));
  EXPECT_EQ(tried, (std::vector<std::pair<double, double>>{
                       {1, 2}, {1, 3}, {1, 4}, {2, 3}, {2, 4}, {3, 4}}));
}

// The search may be spared only where each of its stencils would be refused, and is spared where
// the domain lies far away. In between, where the criterion turns, the proof is put to the test.
TEST(Search, IsSparedWhereItWouldFindNothing) {
  const detail::State& state = detail::default_state();
  detail::Workspace work;
  std::mt19937 random(11);
  std::uniform_int_distribution<int> step(-2, 2), level(0, 18);
  std::uniform_real_distribution<double> place(-1.0, 1.0), log_distance(-0.5, 4.0);
  dist_0 = 0.125;
  int nb_far = 0, nb_far_spared = 0, nb_near_spared = 0;
  for (int trial = 0; trial < 6000; ++trial) {
    Cell c;
    c.level = level(random);
    const double distance = std::exp(log_distance(random));
    c.x = (trial % 3 == 0 ? 1.0 : place(random)) * distance;
    c.y = (trial % 3 == 1 ? 1.0 : place(random)) * distance;
    const double h = dist_0 / std::exp2(c.level / 2.0);
    // The node, three neighbours that stay, and rows that come and go.
    detail::Stencil list{};
    detail::Candidates candidates{};
    const double u[6] = {0, 0, 1, 0, -1, 1}, v[6] = {0, 1, 0, -1, 0, 1};
    for (int i = 0; i < 6; ++i) {
      list.x[i] = c.x + u[i] * h;
      list.y[i] = c.y + v[i] * h;
      candidates.x[i] = c.x + step(random) * h;
      candidates.y[i] = c.y + step(random) * h;
    }
    const bool spared = detail::search_is_hopeless(state.domain, &c, list, 6, candidates, 6);
    if (std::min(std::abs(c.x), std::abs(c.y)) > 9.0) {
      ++nb_far;
      nb_far_spared += spared ? 1 : 0;
    } else {
      nb_near_spared += spared ? 1 : 0;
    }
    if (!spared) continue;
    for (int i = -1; i < 6; ++i) {
      for (int j = -1; j < 6; ++j) {
        detail::Stencil tried = list;
        if (i >= 0) detail::copy_row(tried, 4, candidates, i);
        if (j >= 0) detail::copy_row(tried, 5, candidates, j);
        double unused[5];
        bool succ = true;
        detail::fit_hessian_6pts(state, work, &c, tried, 6, unused[0], unused[1], unused[2],
                                 unused[3], unused[4], succ);
        ASSERT_FALSE(succ) << "trial " << trial << ": " << c.x << ", " << c.y;
      }
    }
  }
  EXPECT_GE(nb_far, 500);
  EXPECT_EQ(nb_far_spared, nb_far);
  EXPECT_GE(nb_near_spared, 500);
}

// Scattered nodes around the origin. Level 31 wraps to a negative tolerance, which refuses no
// square system but squares to a positive one; levels that have no spacing refuse all.
TEST(FitData, ReproducesQuadraticsAndLeavesTheValueWhereItCannot) {
  const detail::State& state = detail::default_state();
  const auto quadratic = [](double x, double y) {
    return 1.0 - 2.0 * x + 0.5 * y + 3.0 * x * x - y * y + 0.25 * x * y;
  };
  std::mt19937 random(3);
  std::uniform_real_distribution<double> place(-1.0, 1.0);
  detail::Candidates list{}, line{};
  for (int i = 0; i < 40; ++i) {
    line.x[i] = list.x[i] = place(random);
    line.y[i] = 2.0 * line.x[i];
    list.y[i] = place(random);
    list.value[i] = quadratic(list.x[i], list.y[i]);
  }
  struct Case {
    int n_list, level;
    bool written;
    double spacing = 1.0;
  };
  for (const Case& one :
       {Case{6, 10, true}, Case{7, 10, true}, Case{40, 0, true}, Case{6, 31, true},
        Case{40, 31, true}, Case{6, 32, false}, Case{9, 32, false}, Case{40, 1000, false},
        Case{6, 0, false, 1e3}, Case{9, 0, false, 1e3}}) {
    dist_0 = one.spacing;
    double value = -77.0;
    detail::fit_data(state, line, one.n_list, 0.0, 0.0, value, 4);
    EXPECT_EQ(value, -77.0) << "nodes on one line";
    detail::fit_data(state, list, one.n_list, 0.3, -0.4, value, one.level);
    EXPECT_NEAR(value, one.written ? quadratic(0.3, -0.4) : -77.0, 1e-8)
        << one.n_list << " rows, level " << one.level;
  }
  double value = 0.0;
  const ChildEnd end = run_in_child([&] { detail::fit_data(state, list, 41, 0.0, 0.0, value, 0); });
  EXPECT_EQ(end.exit_status, EXIT_FAILURE);
}

}  // namespace
}  // namespace velmar_2d::tests
