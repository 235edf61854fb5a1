// The derivatives at every node, by one thread or by several.
#include "velmar_2D/derivatives/derivatives.hpp"

namespace velmar_2d::detail {

namespace {

void compute_by_one_thread(const State& state) {
  Workspace work;
  Walk walk = Walk::to_derive(state.history);
  state.progress.begin("derivatives", state.nb_nodes);
  for (Cell& c : walk(state.mesh_beg)) {
    compute_data_at_node(state, work, &c);
    state.progress.step();
  }
}

void compute_portions(const State& state, Portions& portions) noexcept {
  try {
    ThreadWorkspace own;
    for (Portion portion = portions.take(); !portion.empty(); portion = portions.take()) {
      Walk walk = Walk::to_derive(state.history, portion.number);
      for (Cell& c : walk(portion.first)) {
        if (&c == portion.end) break;
        compute_data_at_node(state, own.work, &c);
      }
    }
  } catch (...) {
    portions.fail();
  }
}

/// False where a node failed.
bool compute_in_space_order(const State& state, int threads) {
  state.progress.begin("derivatives", state.nb_nodes);
  return try_compute_data_at_nodes(state, state.space_order.nodes(), threads,
                                   [&](std::size_t nb_nodes) {
                                     while (nb_nodes-- > 0) state.progress.step();
                                   });
}

}  // namespace

void compute_data_at_all_nodes(State& state, int threads) {
  if (state.lists_are_split()) join_sublists(state);
  if (state.space_order.begin_pass(state.mesh_beg, state.nb_nodes, state.mesh_revision,
                                   state.domain, state.history)) {
    if (!compute_in_space_order(state, threads)) compute_by_one_thread(state);
    return;
  }
  threads = Portions::useful_threads(state, threads);
  if (threads <= 1) {
    compute_by_one_thread(state);
    return;
  }
  state.progress.begin("derivatives", state.nb_nodes);
  Portions portions(state);
  portions.share(threads, [&] { compute_portions(state, portions); });
  // Whose turn it is to fail, and how, is that of the first node that does.
  if (portions.failed()) compute_by_one_thread(state);
}

}  // namespace velmar_2d::detail
