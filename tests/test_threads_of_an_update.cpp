// A resolve with several threads leaves the mesh that it leaves with one, to the last bit, and ends
// as with one where the size function throws.
#include <atomic>
#include <string>
#include <thread>

#include "support/mesh_view.hpp"

namespace velmar_2d::tests {

namespace {

constexpr Grid grid{.nx = 33, .subdiv_max = 12, .n_cell_data = 1};

/// A ring that has come so far, and data along it. What throws does so at many nodes; the text
/// tells which it was.
size_function size_at(int step, bool throws) {
  const scenarios::Ring ring = scenarios::travelling_ring(0.01 * step);
  return [=](double x, double y, std::span<const double>, double gradient, double) {
    const double distance = ring.distance(x, y);
    if (throws && distance < 0.02 && x > 0.3) {
      throw std::domain_error(std::to_string(x) + " " + std::to_string(y));
    }
    if (distance > 0.29) return -1.0;
    return std::max(0.002, 0.1 * distance) / (1.0 + 0.01 * gradient);
  };
}

/// What each step of a front leaves, and how it ended.
std::vector<std::string> go(const Resolution& resolution) {
  std::vector<std::string> steps;
  Mesh mesh({}, grid);
  for (int step = 0; step < 8; ++step) {
    for (Cell& c : mesh.nodes()) c.data[0] = std::tanh(9.0 * (c.x - c.y) + 0.1 * step);
    std::string end = "well";
    try {
      mesh.resolve(size_at(step, step == 3 || step == 5), resolution);
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
  for (const double margin : {0.0, 0.7}) {
    const std::vector<std::string> alone = go({.margin = margin});
    EXPECT_NE(alone[5].substr(0, 4), "well");
    for (const int threads : {2, 5}) {
      EXPECT_EQ(go({.margin = margin, .threads = threads}), alone);
    }
  }
}

TEST(ThreadsOfAnUpdate, AreAskedAtTheSameTimeAndTellTheirProgress) {
  Mesh mesh({}, {.nx = 129, .subdiv_max = 4});
  std::atomic<int> inside = 0, most = 0;
  const auto slow = [&](double, double, auto...) {
    const int now = ++inside;
    for (int seen = most; now > seen && !most.compare_exchange_weak(seen, now);) {
    }
    std::this_thread::sleep_for(std::chrono::microseconds(20));
    --inside;
    return 1.0;
  };
  const std::thread::id caller = std::this_thread::get_id();
  mesh.set_progress_handler([&](const Progress& progress) {
    EXPECT_EQ(std::this_thread::get_id(), caller);
    if (progress.done > 4000) throw std::runtime_error("enough");
  });
  EXPECT_THROW(mesh.resolve(slow, {.threads = 3}), std::runtime_error);
  EXPECT_GT(most, 1);
  EXPECT_THROW(mesh.resolve(slow, {.threads = -1}), Error);
}

}  // namespace
}  // namespace velmar_2d::tests
