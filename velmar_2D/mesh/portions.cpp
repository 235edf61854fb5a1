// The list, handed out to several threads.
#include "velmar_2D/mesh/state.hpp"

namespace velmar_2d::detail {

namespace {

/// Where the history is not that of the list, the list is walked once more.
const TraversalHistory& history_of_list(State& state) {
  TraversalHistory& history = state.history;
  if (history.is_of(state.mesh_revision, state.nb_nodes)) return history;
  constexpr std::int32_t between_looks = 1024;
  Walk walk = Walk::to_record(history);
  history.begin_recording(state.nb_nodes);
  std::int32_t n = 0;
  for ([[maybe_unused]] const Cell& c : walk(state.mesh_end)) {
    if (++n % between_looks == 0) state.progress.look_aside();
  }
  history.end_recording(state.mesh_revision);
  return history;
}

}  // namespace

Portions::Portions(State& state)
    : history_(history_of_list(state)), nb_nodes_(static_cast<std::size_t>(state.nb_nodes)) {
  std::vector<TraversalHistory::Entry> entries;
  for (std::ptrdiff_t i = 0; i < history_.size(); i += nodes_of_a_portion) {
    entries.push_back(history_[i]);
  }
  firsts_ = state.memory.nodes_in(entries);
  if (!firsts_.empty() && firsts_[0] != state.mesh_beg) firsts_.clear();
}

}  // namespace velmar_2d::detail
