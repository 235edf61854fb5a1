// The derivatives at some nodes, by one thread or by several.
#include "velmar_2D/arrays/arrays.hpp"
#include "velmar_2D/derivatives/derivatives.hpp"

namespace velmar_2d::detail {

namespace {

/// What is read at nodes that come soon: they, their neighbours, and the corner of a regular square
/// that no link of theirs leads to.
VELMAR_2D_ALWAYS_INLINE void prefetch_ahead(std::span<Cell* const> nodes, std::size_t i) {
  constexpr std::size_t node_ahead = 12, neighbours_ahead = 6, corner_ahead = 2;
  if (i + node_ahead < nodes.size()) prefetch_lines(nodes[i + node_ahead], 3);
  if (i + neighbours_ahead < nodes.size()) {
    const Cell& c = *nodes[i + neighbours_ahead];
    prefetch_neighbours(c);
  }
  if (i + corner_ahead < nodes.size()) {
    const Cell& c = *nodes[i + corner_ahead];
    prefetch_corner_of_square(c);
  }
}

}  // namespace

void compute_in_turn(const State& state, Workspace& work, std::span<Cell* const> nodes) {
  for (std::size_t i = 0; i < nodes.size(); ++i) {
    prefetch_ahead(nodes, i);
    compute_data_at_node(state, work, nodes[i]);
  }
}

bool try_compute_data_at_nodes(const State& state, std::span<Cell* const> nodes, int threads,
                               const std::function<void(std::size_t nb_nodes)>& tell) {
  constexpr std::size_t nodes_of_part = 512;
  const auto tell_if_any = [&](std::size_t nb_nodes) {
    if (tell) tell(nb_nodes);
  };
  DoneTogether done(tell_if_any);
  try {
    in_parts(
        nodes.size(), threads,
        [&](std::size_t begin, std::size_t end) {
          ThreadWorkspace own;
          compute_in_turn(state, own.work, nodes.subspan(begin, end - begin));
          done.add(end - begin);
        },
        nodes_of_part);
  } catch (const ThreadWorkspace::Failure&) {
    return false;
  }
  done.end();
  return true;
}

void compute_data_at_nodes(const State& state, std::span<Cell* const> nodes, int threads) {
  if (threads > 1 && try_compute_data_at_nodes(state, nodes, threads)) return;
  Workspace work;
  compute_in_turn(state, work, nodes);
}

}  // namespace velmar_2d::detail
