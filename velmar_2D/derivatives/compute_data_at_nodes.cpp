// The derivatives at some nodes, by one thread or by several.
#include <atomic>
#include <thread>

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

void compute_in_turn(const State& state, Workspace& work, std::span<Cell* const> nodes) {
  for (std::size_t i = 0; i < nodes.size(); ++i) {
    prefetch_ahead(nodes, i);
    compute_data_at_node(state, work, nodes[i]);
  }
}

constexpr std::size_t nodes_of_a_portion = 512;

class Shared {
 public:
  Shared(const State& state, std::span<Cell* const> nodes,
         const std::function<void(std::size_t nb_nodes)>& tell)
      : state_(state), nodes_(nodes), tell_(tell) {}

  void compute_portions() noexcept {
    try {
      ThreadWorkspace own;
      while (!has_failed_) {
        const std::size_t begin = next_.fetch_add(nodes_of_a_portion);
        if (begin >= nodes_.size()) break;
        const std::size_t n = std::min(nodes_of_a_portion, nodes_.size() - begin);
        compute_in_turn(state_, own.work, nodes_.subspan(begin, n));
        nb_done_ += n;
        tell();
      }
    } catch (...) {
      has_failed_ = true;
    }
  }
  /// Needs: no other thread works any more.
  bool end() {
    tell();
    if (thrown_by_teller_) std::rethrow_exception(thrown_by_teller_);
    return !has_failed_;
  }

 private:
  void tell() noexcept {
    if (std::this_thread::get_id() != caller_ || !tell_ || thrown_by_teller_) return;
    try {
      const std::size_t nb_done = nb_done_;
      tell_(nb_done - std::exchange(nb_told_, nb_done));
    } catch (...) {
      thrown_by_teller_ = std::current_exception();
      has_failed_ = true;
    }
  }

  const State& state_;
  std::span<Cell* const> nodes_;
  const std::function<void(std::size_t)>& tell_;
  std::atomic<std::size_t> next_ = 0, nb_done_ = 0;
  std::size_t nb_told_ = 0;
  std::atomic<bool> has_failed_ = false;
  const std::thread::id caller_ = std::this_thread::get_id();
  std::exception_ptr thrown_by_teller_;  ///< touched by the caller's thread alone
};

}  // namespace

bool try_data_at_nodes(const State& state, std::span<Cell* const> nodes, int threads,
                       const std::function<void(std::size_t nb_nodes)>& tell) {
  const std::size_t useful = std::clamp<std::size_t>(
      nodes.size() / nodes_of_a_portion, 1, static_cast<std::size_t>(std::max(threads, 1)));
  Shared shared(state, nodes, tell);
  {
    const Helpers helpers(useful - 1, [&] { shared.compute_portions(); });
    shared.compute_portions();
  }
  return shared.end();
}

void compute_data_at_nodes(const State& state, std::span<Cell* const> nodes, int threads) {
  if (threads > 1 && try_data_at_nodes(state, nodes, threads)) return;
  Workspace work;
  compute_in_turn(state, work, nodes);
}

}  // namespace velmar_2d::detail
