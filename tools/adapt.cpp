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
  void tell(const std::string& what, std::int64_t nb_nodes) {
    const auto now = Clock::now();
    if (now - last_ < std::chrono::seconds(1)) return;
    last_ = now;
    std::fprintf(stderr, "%s: %lld nodes, %.0f s\n", what.c_str(), static_cast<long long>(nb_nodes),
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

std::string too_many_nodes(std::int64_t most_nodes,
                           const std::string& remedy = "give --finest, lower --limit") {
  return "more than " + std::to_string(most_nodes) + " nodes would be needed; " + remedy +
         " or raise --most-nodes";
}

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
  if (std::int64_t{columns + 1} * (rows + 1) > options.most_nodes) {
    return too_many_nodes(options.most_nodes, "lower --squares");
  }
  mesh.emplace(Rectangle{domain.west, domain.east, domain.south, domain.north},
               Grid{.nx = columns + 1, .ny = rows + 1, .subdiv_max = options.limit});

  const auto wanted = field.make(wish, mesh->spacing_of_level(options.limit));
  Progress progress;
  const auto begin = Clock::now();
  constexpr unsigned calls_per_look = 4096;
  unsigned calls = 0;
  int update = 0;
  const size_function size = [&](double x, double y, std::span<const double>, double, double) {
    if (++calls % calls_per_look == 0) {
      progress.tell(update == 0 ? "resolve" : "update " + std::to_string(update), mesh->size());
    }
    if (mesh->size() > options.most_nodes) throw TooManyNodes{};
    return wanted(x, y);
  };
  try {
    if (options.updates == 0) {
      mesh->resolve(size, {.most_nodes = options.most_nodes, .slope = options.slope});
    }
    while (update < options.updates) {
      ++update;
      mesh->update(size);
    }
  } catch (const TooManyNodes&) {
    return too_many_nodes(options.most_nodes);
  } catch (const Error&) {
    if (mesh->size() < options.most_nodes) throw;
    return too_many_nodes(options.most_nodes);
  }
  outcome.seconds = std::chrono::duration<double>(Clock::now() - begin).count();
  for (Cell& node : mesh->nodes()) {
    constexpr double rounding = 1e-9;
    node.data.resize(1);
    node.data[0] = wanted(node.x, node.y);
    // A size that is none asks for nothing.
    if (mesh->spacing_of_level(node.level) > node.data[0] * (1.0 + rounding) &&
        node.data[0] >= 0.0) {
      ++outcome.too_coarse;
    }
  }
  return {};
}

}  // namespace velmar_2d::tools
