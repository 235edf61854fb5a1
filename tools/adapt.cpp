#include "tools/adapt.hpp"

#include <chrono>
#include <cmath>
#include <cstdio>

namespace velmar_2d::tools {
namespace {

using Clock = std::chrono::steady_clock;

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

/// Ctrl-C is answered within this time, or as soon as the wanted spacing at a node is known.
constexpr double seconds_between_looks = 0.02;

/// Leaves an update from within its size function.
struct TooManyNodes {};

}  // namespace

std::string make_mesh(const SizeField& field, const MeshOptions& options, Domain& domain,
                      std::optional<Mesh>& mesh, Outcome& outcome, ProgressLine& line) {
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
  const auto begin = Clock::now();
  int update = 0;
  mesh->set_progress_handler(
      [&](const Progress& progress) {
        if (InterruptsAreHeeded::was_pressed()) {
          line.wipe();
          end_by_interrupt();
        }
        std::string what(progress.phase);
        if (update > 0) what = "update " + std::to_string(update) + ", " + what;
        // How many nodes will come nobody knows; those that are there are gone through once.
        const bool is_known = progress.phase != "refining" && progress.known > 0;
        const auto done = static_cast<double>(progress.done);
        line.tell(what, mesh->size(), is_known ? done / static_cast<double>(progress.known) : -1.0);
      },
      seconds_between_looks);
  const size_function size = [&](double x, double y, std::span<const double>, double, double) {
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
  mesh->set_progress_handler({});
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
