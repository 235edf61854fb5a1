// A resolve with several threads leaves the mesh that it leaves with one, to the last bit, and ends
// as with one where the size function throws.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>

#include "support/mesh_view.hpp"

namespace velmar_2d::tests {

namespace {

/// A ring that has come so far, and data along it. What throws does so at many nodes; the text
/// tells which it was.
size_function size_at(int step, bool throws) {
  const scenarios::Ring ring = scenarios::travelling_ring(0.02 * step);
  return [=](double x, double y, std::span<const double> data, double gradient, double) {
    const double distance = ring.distance(x, y);
    if (throws && distance < 0.02 && x > 0.3) {
      throw std::domain_error(std::to_string(x) + " " + std::to_string(y));
    }
    if (distance > 0.29) return -1.0;
    return std::max(0.015, 0.2 * distance) / (1.0 + 0.01 * gradient + 0.1 * std::abs(data[0]));
  };
}

enum class Special { none, conservative, hook, init };

/// What each step of a front leaves, and how it ended.
std::vector<std::string> follow_front(Special special, const Resolution& resolution) {
  std::vector<std::string> steps;
  Mesh mesh({}, {.nx = 33, .subdiv_max = 6, .n_cell_data = 1});
  // What these write at the neighbours of a node that comes, others may be asked with.
  if (special == Special::conservative) mesh.set_transfer(Transfer::conservative);
  if (special == Special::hook) {
    NodeHooks hooks;
    hooks.inserted = [](Cell&, std::span<Cell* const> parents) {
      for (Cell* parent : parents) parent->data[0] += 0.5;
    };
    mesh.set_node_hooks(hooks);
  }
  for (int step = 0; step < 5; ++step) {
    for (Cell& c : mesh.nodes()) c.data[0] = std::tanh(9.0 * (c.x - c.y) + 0.1 * step);
    std::string end = "well";
    try {
      const size_function size = size_at(step, step == 3);
      if (special == Special::init) {
        mesh.resolve(
            size, [](double x, double y) { return x * y; }, resolution);
      } else {
        mesh.resolve(size, resolution);
      }
    } catch (const std::domain_error& error) {
      end = error.what();
    }
    steps.push_back(end + " " + std::to_string(state_hash(mesh)) + " " +
                    std::to_string(mesh.statistics().visited));
    EXPECT_TRUE(mesh.check().empty());
  }
  return steps;
}

TEST(ThreadsOfAnUpdate, LeaveTheMeshOfOne) {
  for (const Special special :
       {Special::none, Special::conservative, Special::hook, Special::init}) {
    const double margin = special == Special::none ? 0.0 : 0.7;
    const std::vector<std::string> alone = follow_front(special, {.margin = margin});
    EXPECT_NE(alone[3].substr(0, 4), "well");
    EXPECT_EQ(follow_front(special, {.margin = margin, .threads = 3}), alone);
  }
}

TEST(ThreadsOfAnUpdate, AskAtTheSameTimeAndTellProgressInTheCallersAlone) {
  Mesh mesh({}, {.nx = 129, .subdiv_max = 4});
  const std::thread::id caller = std::this_thread::get_id();
  std::atomic<int> inside = 0, most = 0;
  std::atomic<bool> others = false;
  const auto slow = [&](double, double, auto...) {
    const int now = ++inside;
    for (int seen = most; now > seen && !most.compare_exchange_weak(seen, now);) {
    }
    if (std::this_thread::get_id() != caller) others = true;
    std::this_thread::sleep_for(std::chrono::microseconds(20));
    --inside;
    return 1.0;
  };
  int told = 0;
  mesh.set_progress_handler([&](const Progress& progress) {
    ++told;
    EXPECT_EQ(std::this_thread::get_id(), caller);
    if (progress.phase == "refining" && progress.done > 4000) throw std::runtime_error("enough");
  });
  EXPECT_THROW(mesh.resolve(slow, {.threads = 3}), std::runtime_error);
  EXPECT_TRUE(others);
  EXPECT_GT(most, 1);
  EXPECT_GT(told, 0);
  EXPECT_LT(mesh.statistics().visited, mesh.size());
  mesh.set_progress_handler(nullptr);
  mesh.resolve([](auto...) { return 1.0; }, {.threads = 3});
  EXPECT_EQ(mesh.statistics().visited, mesh.size());
}

/// The history tells the order in which the nodes were.
TEST(ThreadsOfAnUpdate, AskAllNodesOfAListThatTheCallerHasTurnedRound) {
  Mesh mesh({}, {.nx = 65, .subdiv_max = 2});
  mesh.resolve([](auto...) { return 1.0; }, {.threads = 3});
  std::vector<Cell*> list;
  for (Cell& c : mesh.nodes()) list.push_back(&c);
  std::reverse(list.begin() + 1, list.end() - 1);
  for (std::size_t i = 1; i < list.size(); ++i) {
    list[i - 1]->next = list[i];
    list[i]->prev = list[i - 1];
  }
  std::mutex adding;
  std::set<std::pair<double, double>> asked;
  const auto size = [&](double x, double y, auto...) {
    const std::scoped_lock lock(adding);
    asked.insert({x, y});
    return 1.0;
  };
  mesh.resolve(size, {.threads = 3});
  EXPECT_EQ(asked.size(), list.size());
}

}  // namespace
}  // namespace velmar_2d::tests
