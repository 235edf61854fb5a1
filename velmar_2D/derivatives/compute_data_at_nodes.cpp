// The derivatives at some nodes, by one thread or by several.
#include <atomic>

#include "velmar_2D/derivatives/derivatives.hpp"

namespace velmar_2d::detail {

namespace {

/// What is read at nodes that come soon: they, their neighbours, and the corner of a regular square
/// that no link of theirs leads to.
VELMAR_2D_ALWAYS_INLINE void prefetch_ahead(std::span<Cell* const> nodes, std::size_t i) {
  constexpr std::size_t node_ahead = 12, neighbours_ahead = 6, corner_ahead = 2;
  if (i + node_ahead < nodes.size()) prefetch_lines(nodes[i + node_ahead], 3);
  if (i + neighbours_ahead < nodes.size()) prefetch_neighbours(*nodes[i + neighbours_ahead]);
  if (i + corner_ahead < nodes.size()) prefetch_corner_of_square(*nodes[i + corner_ahead]);
}

void compute_in_turn(const State& state, Workspace& work, std::span<Cell* const> nodes) {
  for (std::size_t i = 0; i < nodes.size(); ++i) {
    prefetch_ahead(nodes, i);
    compute_data_at_node(state, work, nodes[i]);
  }
}

constexpr std::size_t nodes_of_a_portion = 512;

/// False where one failed: what is said then is that of the first node that does.
bool compute_by_threads(const State& state, std::span<Cell* const> nodes, std::size_t threads) {
  std::atomic<std::size_t> next = 0;
  std::atomic<bool> failed = false;
  const auto compute_portions = [&] {
    try {
      ThreadWorkspace own;
      while (!failed) {
        const std::size_t begin = next.fetch_add(nodes_of_a_portion);
        if (begin >= nodes.size()) return;
        compute_in_turn(state, own.work,
                        nodes.subspan(begin, std::min(nodes_of_a_portion, nodes.size() - begin)));
      }
    } catch (...) {
      failed = true;
    }
  };
  {
    const Helpers helpers(threads - 1, compute_portions);
    compute_portions();
  }
  return !failed;
}

}  // namespace

void compute_data_at_nodes(const State& state, std::span<Cell* const> nodes, int threads) {
  const std::size_t useful =
      std::min(static_cast<std::size_t>(std::max(threads, 1)), nodes.size() / nodes_of_a_portion);
  if (useful > 1 && compute_by_threads(state, nodes, useful)) return;
  Workspace work;
  compute_in_turn(state, work, nodes);
}

}  // namespace velmar_2d::detail
