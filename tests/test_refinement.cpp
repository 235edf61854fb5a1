// What is proposed around a node, which proposals are taken, and the order of a stretch.
#include <sstream>
#include <tuple>

#include "scenarios/scenarios.hpp"
#include "support/mesh_checker.hpp"
#include "support/mesh_view.hpp"
#include "velmar_2D/adapt/update_mesh_decl.hpp"

namespace velmar_2d::tests {
namespace {

using Refinement = MeshTest;
using Lines = std::vector<std::string>;
using Levels = std::vector<std::int32_t>;

Lines proposed(double u, double v) {
  Lines lines;
  for (const Vertex& vertex : proposals_around(node_at(u, v))) {
    std::ostringstream line;
    line << '(' << vertex.x << ',' << vertex.y << ") level " << vertex.level << " of";
    for (const Cell* p : {vertex.p1, vertex.p2, vertex.p3, vertex.p4})
      if (p != nullptr) line << " (" << p->x << ',' << p->y << ')';
    lines.push_back(line.str());
  }
  return lines;
}

//   (0,2)     (1,2)     (2,2)
//       o         o             centres o at (0.5,0.5) ... (1.5,1.5)
//   (0,1)     (1,1)     (2,1)
//       o         o
//   (0,0)     (1,0)     (2,0)
TEST_F(Refinement, ProposesTheCentresOfSquaresThenOfDiamonds) {
  make_grid(3, 3, 4);
  EXPECT_EQ(proposed(1, 1), (Lines{"(1.5,1.5) level 1 of (1,1) (1,2) (2,2) (2,1)",
                                   "(1.5,0.5) level 1 of (1,1) (2,1) (2,0) (1,0)",
                                   "(0.5,0.5) level 1 of (1,1) (1,0) (0,0) (0,1)",
                                   "(0.5,1.5) level 1 of (1,1) (0,1) (0,2) (1,2)"}));
  for (const Vertex& v : proposals_around(node_at(1, 1))) insert(v);
  EXPECT_EQ(proposed(1, 1), (Lines{"(1.5,1) level 2 of (1,1) (1.5,1.5) (2,1) (1.5,0.5)",
                                   "(1,0.5) level 2 of (1,1) (1.5,0.5) (1,0) (0.5,0.5)",
                                   "(0.5,1) level 2 of (1,1) (0.5,0.5) (0,1) (0.5,1.5)",
                                   "(1,1.5) level 2 of (1,1) (0.5,1.5) (1,2) (1.5,1.5)"}));
  // Two whole diamonds, and two halves with the node as their apex.
  EXPECT_EQ(proposed(0.5, 0.5), (Lines{"(1,0.5) level 2 of (0.5,0.5) (1,1) (1.5,0.5) (1,0)",
                                       "(0.5,0) level 2 of (0.5,0.5) (1,0) (0,0)",
                                       "(0,0.5) level 2 of (0.5,0.5) (0,0) (0,1)",
                                       "(0.5,1) level 2 of (0.5,0.5) (0,1) (0.5,1.5) (1,1)"}));
  // Halves with the node on the side itself.
  EXPECT_EQ(proposed(2, 1), (Lines{"(1.5,1) level 2 of (2,1) (1.5,0.5) (1,1) (1.5,1.5)",
                                   "(2,0.5) level 2 of (2,1) (1.5,0.5) (2,0)",
                                   "(2,1.5) level 2 of (2,1) (1.5,1.5) (2,2)"}));
}

// A copy of a node stands for its original.
TEST_F(Refinement, ProposesTheSameAroundACopy) {
  make_grid(3, 3, 4);
  insert(proposals_around(node_at(0, 0)).at(0));  // with the next one a diamond, beside squares
  insert(proposals_around(node_at(2, 0)).at(0));
  for (Cell* c = mesh_beg; c != nullptr; c = c->next) {
    Cell copy = *c;
    const auto expected = proposals_around(c), around_copy = proposals_around(&copy);
    ASSERT_EQ(around_copy.size(), expected.size()) << links(*c);
    for (std::size_t i = 0; i < expected.size(); ++i) {
      const Vertex &a = around_copy[i], &b = expected[i];
      EXPECT_EQ(std::tuple(a.x, a.y, a.level, a.p2, a.p3, a.p4),
                std::tuple(b.x, b.y, b.level, b.p2, b.p3, b.p4));
    }
  }
}

// The lattice gives level 1 or 2; one above the cells' own level 4 would be 5. Levels and reserves
// are written by hand to tell the two rules apart.
TEST_F(Refinement, LatticeDecidesTheLevelOfNearlyCompleteFigures) {
  make_grid(2, 2, 9);
  Cell* const corners[] = {node_at(0, 0), node_at(0, 1), node_at(1, 1), node_at(1, 0)};
  const auto level = [&](std::int32_t reserve_of_last, std::int32_t level_of_last = 4) {
    for (Cell* c : corners) c->level = 4, c->reserve = 1;
    corners[2]->reserve = reserve_of_last;
    corners[2]->level = level_of_last;
    return proposals_around(corners[0]).at(0).level;
  };
  EXPECT_EQ((Levels{level(1), level(2), level(3), level(1, 3)}), (Levels{1, 5, 5, 5}));
  Cell other;  // two links along the square, three more make a large house
  corners[2]->ne = corners[2]->se = corners[2]->nw = &other;
  EXPECT_EQ((Levels{level(2), level(3)}), (Levels{1, 5}));
  corners[2]->ne = corners[2]->se = corners[2]->nw = nullptr;

  for (Cell* c : corners) c->level = 0, c->reserve = 1;
  Cell* apex = insert(proposals_around(corners[0]).at(0));
  Cell *left = corners[0], *right = corners[3];
  const auto levels = [&](std::int32_t of_left, std::int32_t of_right, std::int32_t of_apex) {
    apex->level = left->level = right->level = 4;
    left->reserve = of_left;
    right->reserve = of_right;
    apex->reserve = of_apex;
    Levels found;  // by all three cells of the half at the south side
    for (Cell* around : {apex, left, right})
      for (const Vertex& v : proposals_around(around))
        if (v.x == 0.5 && v.y == 0.0) found.push_back(v.level);
    return found;
  };
  EXPECT_EQ(levels(1, 1, 1), (Levels{2, 2, 2}));
  EXPECT_EQ(levels(2, 1, 1), (Levels{5, 5, 5}));
  EXPECT_EQ(levels(1, 2, 1), (Levels{5, 5, 5}));
  EXPECT_EQ(levels(1, 1, 2), (Levels{5, 5, 5}));
  apex->n = &other;
  EXPECT_EQ(levels(1, 1, 2), (Levels{2, 2, 2})) << "the apex is a large house";
}

TEST_F(Refinement, OrdinaryModeStaysBelowTheLimitSpecialModeReachesIt) {
  make_grid(3, 3, 1);
  Cell* c = node_at(1, 1);
  detail::refine_cell(detail::default_state(), c);
  EXPECT_EQ(nb_nodes, 9) << "level 1 is not below the limit 1";
  detail::refine_cell(detail::default_state(), c, true);
  EXPECT_EQ(nb_nodes, 9) << "a cell of the figure awaits all four";
  c->reserve = 3;
  detail::refine_cell(detail::default_state(), c, true);
  EXPECT_EQ(nb_nodes, 13);

  set_subdiv_max(2);
  c = node_at(0.5, 0.5);
  detail::refine_cell(detail::default_state(), c, true);
  EXPECT_EQ(nb_nodes, 15) << "the halves only: they are not held to the reserve";
  set_subdiv_max(3);
  detail::refine_cell(detail::default_state(), c, false);
  EXPECT_EQ(nb_nodes, 17) << "ordinary mode asks for no reserve";
  EXPECT_TRUE(mesh_is_whole());
}

// Five nodes of one stretch; each has two neighbours of its kind with the given levels.
TEST_F(Refinement, SortingAStretchMovesItsMixedNodesToTheTail) {
  using Neighbours = std::array<std::pair<int, int>, 5>;
  const auto sorted = [](std::size_t l, const Neighbours& levels) {
    std::array<Cell, 5> nodes;
    std::array<std::array<Cell, 2>, 5> neighbours;
    for (std::size_t i = 0; i < 5; ++i) {
      nodes[i].id = static_cast<std::int32_t>(i);
      nodes[i].prev = i > 0 ? &nodes[i - 1] : nullptr;
      nodes[i].next = i < 4 ? &nodes[i + 1] : nullptr;
      neighbours[i][0].level = levels[i].first;
      neighbours[i][1].level = levels[i].second;
      (l % 2 == 0 ? nodes[i].e : nodes[i].se) = &neighbours[i][0];
      (l % 2 == 0 ? nodes[i].w : nodes[i].nw) = &neighbours[i][1];
    }
    level_beg.assign(4, {});
    level_end.assign(4, {});
    level_beg[l].next = nodes.data();
    level_end[l].next = &nodes[4];
    detail::special_sort_level(detail::default_state(), static_cast<std::int32_t>(l));
    std::string order;
    for (const Cell* c = level_beg[l].next; c != nullptr; c = c->next)
      order += static_cast<char>('A' + c->id);
    for (const Cell* c = level_end[l].next; c != nullptr; c = c->prev)
      order += static_cast<char>('a' + c->id);
    level_beg.clear();
    level_end.clear();
    return order;
  };
  for (const int l : {2, 3}) {
    const std::pair mixed{l, l - 1}, same{l, l}, coarse{l - 1, l - 1}, finer{l + 1, l - 1};
    const auto stretch = static_cast<std::size_t>(l);
    EXPECT_EQ(sorted(stretch, {same, mixed, same, coarse, same}), "ACDEBbedca");
    EXPECT_EQ(sorted(stretch, {mixed, same, mixed, same, mixed}), "BDECAacedb");
    EXPECT_EQ(sorted(stretch, {mixed, finer, mixed, same, same}), "ABDECcedba") << "stops at B";
  }
}

}  // namespace
}  // namespace velmar_2d::tests
