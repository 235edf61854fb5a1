#include "tools/adapt.hpp"

#include <chrono>
#include <cmath>
#include <cstdio>

namespace velmar_2d::tools {
namespace {

using Clock = std::chrono::steady_clock;

/// Says on standard error how far the work is, once a second from the second second on.
class Progress {
 public:
  void tell(int update, std::int64_t nb_nodes) {
    const auto now = Clock::now();
    if (now - last_ < std::chrono::seconds(1)) return;
    last_ = now;
    std::fprintf(stderr, "update %d: %lld nodes, %.0f s\n", update,
                 static_cast<long long>(nb_nodes),
                 std::chrono::duration<double>(now - begin_).count());
  }

 private:
  Clock::time_point begin_ = Clock::now(), last_ = begin_;
};

/// Whole squares along a side; almost whole is whole.
int squares_along(double length, double square) {
  constexpr double rounding = 1e-9;
  return static_cast<int>(std::ceil(length / square * (1.0 - rounding)));
}

constexpr int most_squares = 4096;

/// Leaves an update from within its size function.
struct TooManyNodes {};

}  // namespace

std::string make_mesh(const SizeField& field, const MeshOptions& options, Domain& domain,
                      std::optional<Mesh>& mesh, Outcome& outcome) {
  const Domain wish = domain;
  const double square = std::min(domain.width(), domain.height()) / options.squares;
  if (!(square > 0.0) || std::max(domain.width(), domain.height()) / square > most_squares) {
    return "the domain is empty or too long and thin";
  }
  const int columns = squares_along(domain.width(), square);
  const int rows = squares_along(domain.height(), square);
  domain.east = domain.west + columns * square;
  domain.north = domain.south + rows * square;
  mesh.emplace(Rectangle{domain.west, domain.east, domain.south, domain.north},
               Grid{.nx = columns + 1, .ny = rows + 1, .subdiv_max = options.limit});

  // A node of the limit's own level would have to be split to be needed: one level less is reached.
  const double finest = mesh->dist_0() * std::exp2(-0.5 * std::max(0, options.limit - 1));
  const auto wanted = field.make(wish, finest);
  Progress progress;
  const auto begin = Clock::now();
  constexpr unsigned calls_per_look = 4096;
  unsigned calls = 0;
  const size_function size = [&](double x, double y, std::span<const double>, double, double) {
    if (++calls % calls_per_look == 0) progress.tell(outcome.updates + 1, mesh->size());
    if (mesh->size() > options.max_nodes) throw TooManyNodes{};
    return wanted(x, y);
  };

  const int most = options.updates > 0 ? options.updates : most_updates;
  while (outcome.updates < most && !(options.updates == 0 && outcome.is_settled)) {
    const std::int64_t before = mesh->size();
    try {
      mesh->update(size);
    } catch (const TooManyNodes&) {
      return "more than " + std::to_string(options.max_nodes) +
             " nodes are wanted; lower --limit or raise --max-nodes";
    }
    ++outcome.updates;
    outcome.is_settled = before == mesh->size();
  }
  outcome.seconds = std::chrono::duration<double>(Clock::now() - begin).count();
  for (Cell& node : mesh->nodes()) {
    node.data.resize(1);
    node.data[0] = wanted(node.x, node.y);
  }
  return {};
}

}  // namespace velmar_2d::tools
