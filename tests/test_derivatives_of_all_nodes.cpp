// Gradient and Hessian of the data at all nodes: by several threads, patch by patch, along a curve.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <thread>

#include "support/derivatives.hpp"
#include "velmar_2D/derivatives/derivatives.hpp"

namespace velmar_2d::tests {
namespace {

TEST_F(Derivatives, ByManyThreadsAreThoseOfOne) {
  make_mesh({0, 0, 1}, 0.4, 33, 33, 10, 6, wave);
  ASSERT_GE(nb_nodes, 6000);
  compute_data_at_all_nodes();
  const std::string expected = fingerprint();
  const auto forget = [] {
    auto& operators = detail::default_state().fit_operators;
    std::destroy_at(&operators);
    std::construct_at(&operators);
    for (Cell* c = mesh_beg; c != nullptr; c = c->next) c->grad_data = c->grad2_data = -1.0;
  };
  // The first pass goes by the list; the others by a space order, which the second one makes.
  detail::SpaceOrder& order = detail::default_state().space_order;
  for (const int nb_threads : {1, 2, 3, 7, 1000}) {
    order.forget();
    for (int pass = 0; pass < 3; ++pass) {
      forget();
      compute_data_at_all_nodes(nb_threads);
      EXPECT_EQ(order.nodes().empty(), pass == 0);
      EXPECT_EQ(fingerprint(), expected) << nb_threads << " threads";
    }
    forget();
    EXPECT_TRUE(detail::compute_patch_by_patch(detail::default_state(), std::min(nb_threads, 7)));
    EXPECT_EQ(fingerprint(), expected) << nb_threads << " threads, patch by patch";
  }

  forget();
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([i] {
      int turn = i;
      for (Cell* c = mesh_beg; c != nullptr; c = c->next) {
        if (turn++ % 4 == 0) compute_data_at_node(c);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(fingerprint(), expected) << "on different nodes";

  // The first node in the list without derivatives ends it all, in the caller's thread.
  std::vector<Cell*> inner;
  for (Cell* c = mesh_beg; c != nullptr; c = c->next) {
    if (c->on_boundary == 0 && c->reserve != 4) inner.push_back(c);
  }
  const Cell* first = inner[inner.size() / 3];
  for (std::size_t i = inner.size() / 3; i < inner.size(); i += 50) inner[i]->level = 40;
  std::vector<std::string> ends;
  const std::thread::id caller = std::this_thread::get_id();
  fatal_handler = [&](std::string_view text) {
    EXPECT_EQ(std::this_thread::get_id(), caller);
    ends.emplace_back(text.substr(text.rfind(' ') + 1));
    throw std::runtime_error("end");
  };
  for (const bool by_list : {false, true}) {
    for (const int nb_threads : {1, 2, 5}) {
      if (by_list) order.forget();
      EXPECT_THROW(compute_data_at_all_nodes(nb_threads), std::runtime_error);
      EXPECT_FALSE(detail::compute_patch_by_patch(detail::default_state(), nb_threads));
    }
  }
  fatal_handler = nullptr;
  EXPECT_EQ(ends, std::vector(6, std::to_string(first->id)));
}

// Each node of the mesh is met once, and no copy of the caller's that is linked.
TEST_F(Derivatives, PatchByPatchMeetEachNode) {
  make_mesh({5, -3, 2}, 0.4, 33, 33, 10, 6, wave);
  std::vector<Cell*> listed;
  for (Cell* c = mesh_beg; c != nullptr; c = c->next) listed.push_back(c);
  Cell* original = *std::find_if(listed.begin(), listed.end(), [](Cell* c) {
    return c->n.cell() != nullptr && c->n.cell()->s.cell() == c;
  });
  Cell copy = *original;
  Cell& neighbour = *copy.n.cell();
  neighbour.s = &copy;
  std::sort(listed.begin(), listed.end());
  for (const bool shared : {false, true}) {
    detail::Patches patches(detail::default_state().memory, shared);
    std::vector<Cell*> room, met;
    int nb_patches = 0;
    for (auto patch = patches.next(room); !patch.empty(); patch = patches.next(room)) {
      ++nb_patches;
      met.insert(met.end(), patch.begin(), patch.end());
    }
    EXPECT_LT(nb_patches, nb_nodes / 100);
    std::sort(met.begin(), met.end());
    EXPECT_EQ(met, listed);
  }
  neighbour.s = original;
}

// The order is that of the mesh there is, through nearby nodes.
TEST_F(Derivatives, InSpaceOrderFollowTheMesh) {
  const auto way = [](std::span<Cell* const> nodes) {
    double sum = 0.0;
    for (std::size_t i = 1; i < nodes.size(); ++i) {
      sum += std::hypot(nodes[i]->x - nodes[i - 1]->x, nodes[i]->y - nodes[i - 1]->y);
    }
    return sum;
  };
  make_mesh({5, -3, 2}, 0.4, 33, 33, 10, 6, wave);
  for (const double x : {6.0, 6.2}) {
    const scenarios::Ring ring{x, -2.0, 0.8};
    update_mesh_init(scenarios::ring_spacing(ring, 0.3, dist_0 / 32.0, dist_0), wave);
    for (Cell* c = mesh_beg; c != nullptr; c = c->next) compute_data_at_node(c);
    const std::string expected = fingerprint();
    for (int pass = 0; pass < 2; ++pass) {
      for (Cell* c = mesh_beg; c != nullptr; c = c->next) c->grad_data = c->grad2_data = -1.0;
      compute_data_at_all_nodes();
      EXPECT_EQ(fingerprint(), expected) << "pass " << pass;
    }
    std::vector<Cell*> listed, ordered;
    for (Cell* c = mesh_beg; c != nullptr; c = c->next) listed.push_back(c);
    for (Cell* c : detail::default_state().space_order.nodes()) ordered.push_back(c);
    EXPECT_LT(way(ordered), 0.3 * way(listed));
    std::sort(listed.begin(), listed.end());
    std::sort(ordered.begin(), ordered.end());
    EXPECT_EQ(ordered, listed);
  }
}

}  // namespace
}  // namespace velmar_2d::tests
