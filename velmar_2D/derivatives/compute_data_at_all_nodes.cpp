// The derivatives at every node, by one thread or by several.
#include <new>

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

void tell_steps(const State& state, std::size_t nb_nodes) {
  while (nb_nodes-- > 0) state.progress.step();
}

/// False where a node failed, or the list is not known well enough.
bool compute_in_portions(State& state, int threads) {
  const auto tell = [&](std::size_t nb_nodes) { tell_steps(state, nb_nodes); };
  DoneTogether done(tell);
  state.progress.begin("derivatives", state.nb_nodes);
  try {
    const Portions portions(state);
    const auto compute = [&](std::size_t begin, std::size_t end) {
      ThreadWorkspace own;
      const auto compute_at = [&](Cell& c) { compute_data_at_node(state, own.work, &c); };
      if (!portions.for_nodes(begin, Walk::to_derive, compute_at)) throw ThreadWorkspace::Failure();
      done.add(end - begin);
    };
    in_parts(portions.nb_nodes(), threads, compute, Portions::nodes_of_a_portion);
  } catch (const ThreadWorkspace::Failure&) {
    return false;
  } catch (const std::bad_alloc&) {
    return false;
  }
  done.end();
  return true;
}

/// False where a node failed.
bool compute_in_space_order(const State& state, int threads) {
  state.progress.begin("derivatives", state.nb_nodes);
  return try_compute_data_at_nodes(state, state.space_order.nodes(), threads,
                                   [&](std::size_t nb_nodes) { tell_steps(state, nb_nodes); });
}

}  // namespace

bool compute_patch_by_patch(const State& state, int threads) {
  const auto tell = [&](std::size_t nb_nodes) { tell_steps(state, nb_nodes); };
  DoneTogether done(tell);
  std::atomic<bool> has_failed = false;
  state.progress.begin("derivatives", state.nb_nodes);
  try {
    Patches patches(state.memory, threads > 1);
    const auto compute_patches = [&] {
      try {
        ThreadWorkspace own;
        std::vector<Cell*> room;
        while (!has_failed) {
          const std::span<Cell* const> patch = patches.next(room);
          if (patch.empty()) break;
          compute_in_turn(state, own.work, patch);
          done.add(patch.size());
        }
      } catch (...) {
        has_failed = true;
        throw;
      }
    };
    in_threads(static_cast<std::size_t>(threads), compute_patches);
  } catch (const ThreadWorkspace::Failure&) {
    return false;
  } catch (const std::bad_alloc&) {
    return false;
  }
  return done.end() == static_cast<std::size_t>(state.nb_nodes);
}

void compute_data_at_all_nodes(State& state, int threads) {
  if (state.lists_are_split()) join_sublists(state);
  if (state.space_order.begin_pass(state.mesh_beg, state.nb_nodes, state.mesh_revision,
                                   state.domain, state.history)) {
    if (!compute_in_space_order(state, threads)) compute_by_one_thread(state);
    return;
  }
  threads = std::max(Portions::useful_threads(state, threads), 1);
  if (state.nb_nodes >= Patches::fewest_nodes && compute_patch_by_patch(state, threads)) return;
  // Whose turn it is to fail, and how, is that of the first node that does.
  if (threads == 1 || !compute_in_portions(state, threads)) compute_by_one_thread(state);
}

}  // namespace velmar_2d::detail
