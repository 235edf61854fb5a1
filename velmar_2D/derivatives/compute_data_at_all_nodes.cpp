// The derivatives at every node, by one thread or by several.
//
// Several threads take the list piece by piece. Where a piece ends is found by walking it, which
// brings its nodes into the cache of the thread that will work on them.
#include <mutex>

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

/// Nodes from `first` to before `end`.
struct Piece {
  Cell *first = nullptr, *end = nullptr;
  std::ptrdiff_t number = 0;  ///< of the first one in the history of walks
};

/// Hands out the list. None is left once a thread has failed.
class Pieces {
 public:
  static constexpr std::int32_t nodes_of_a_piece = 512;

  explicit Pieces(const State& state)
      : history_(state.history),
        walk_(Walk::to_share(state.history)),
        next_(walk_(state.mesh_beg).begin()) {}

  Piece take() {
    const std::scoped_lock lock(mutex_);
    Piece piece;
    if (failed_ || !(next_ != nullptr)) return piece;
    piece.first = &*next_;
    piece.number = number_;
    for (std::int32_t i = 0; i < nodes_of_a_piece && next_ != nullptr; ++i, ++next_) {
      const bool known = number_ < history_.size();
      if (known && history_[number_] == TraversalHistory::entry_of(&*next_)) ++number_;
    }
    if (next_ != nullptr) piece.end = &*next_;
    return piece;
  }

  void fail() {
    const std::scoped_lock lock(mutex_);
    failed_ = true;
  }
  bool failed() const { return failed_; }

 private:
  const TraversalHistory& history_;
  Walk walk_;
  Walk::Iterator next_;
  std::ptrdiff_t number_ = 0;
  bool failed_ = false;
  std::mutex mutex_;
};

/// Ends the work of a thread: what a failure says is found out by one thread alone.
struct Failure {};

void compute_pieces(const State& state, Pieces& pieces) noexcept {
  try {
    Handlers handlers;
    handlers.fatal = [](std::string_view) { throw Failure(); };
    Workspace work;
    work.handlers = &handlers;
    for (Piece piece = pieces.take(); piece.first != nullptr; piece = pieces.take()) {
      Walk walk = Walk::to_derive(state.history, piece.number);
      for (Cell& c : walk(piece.first)) {
        if (&c == piece.end) break;
        compute_data_at_node(state, work, &c);
      }
    }
  } catch (...) {
    pieces.fail();
  }
}

}  // namespace

void compute_data_at_all_nodes(State& state, int threads) {
  if (state.lists_are_split()) join_sublists(state);
  threads = std::min<std::int32_t>(threads, state.nb_nodes / Pieces::nodes_of_a_piece);
  if (threads <= 1) {
    compute_by_one_thread(state);
    return;
  }
  Pieces pieces(state);
  {
    const auto work = [&] { compute_pieces(state, pieces); };
    const Helpers helpers(static_cast<std::size_t>(threads - 1), work);
    work();
  }
  // Whose turn it is to fail, and how, is that of the first node that does.
  if (pieces.failed()) compute_by_one_thread(state);
}

}  // namespace velmar_2d::detail
