// The derivatives at every node, by one thread or by several.
#include "velmar_2D/arrays/arrays.hpp"
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

/// Ends the work of a thread: what a failure says is found out by one thread alone, in the order of
/// the list.
struct Failure {};

void let_throw(Handlers& handlers) {
  handlers.fatal = [](std::string_view) { throw Failure(); };
}

void compute_portions(const State& state, Portions& portions) noexcept {
  try {
    Handlers handlers;
    let_throw(handlers);
    Workspace work;
    work.handlers = &handlers;
    for (Portion portion = portions.take(); !portion.empty(); portion = portions.take()) {
      Walk walk = Walk::to_derive(state.history, portion.number);
      for (Cell& c : walk(portion.first)) {
        if (&c == portion.end) break;
        compute_data_at_node(state, work, &c);
      }
    }
  } catch (...) {
    portions.fail();
  }
}

/// Reads ahead of itself, as a walk does.
void compute_nodes(const State& state, Workspace& work, std::span<Cell* const> nodes) {
  constexpr std::size_t nodes_ahead = 12, neighbours_ahead = 4;
  for (std::size_t i = 0; i < nodes.size(); ++i) {
    if (i + nodes_ahead < nodes.size()) prefetch_lines(nodes[i + nodes_ahead], 3);
    if (i + neighbours_ahead < nodes.size()) prefetch_neighbours(*nodes[i + neighbours_ahead]);
    compute_data_at_node(state, work, nodes[i]);
  }
}

/// False where a node failed.
bool compute_in_space_order(const State& state, int threads) {
  const std::span<Cell* const> nodes = state.space_order.nodes();
  const std::thread::id caller = std::this_thread::get_id();
  std::atomic<std::size_t> nb_done = 0;
  std::size_t nb_told = 0;
  const auto tell_progress = [&] {
    for (; nb_told < nb_done; ++nb_told) state.progress.step();
  };
  state.progress.begin("derivatives", state.nb_nodes);
  try {
    in_parts(nodes.size(), threads, [&](std::size_t begin, std::size_t end) {
      Handlers handlers;
      let_throw(handlers);
      Workspace work;
      work.handlers = &handlers;
      compute_nodes(state, work, nodes.subspan(begin, end - begin));
      nb_done += end - begin;
      if (std::this_thread::get_id() == caller) tell_progress();
    });
  } catch (const Failure&) {
    return false;
  }
  tell_progress();
  return true;
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
