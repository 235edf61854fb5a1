// The list, handed out to several threads.
#include "velmar_2D/mesh/state.hpp"

namespace velmar_2d::detail {

Pieces::Pieces(const State& state)
    : history_(state.history),
      progress_(state.progress),
      walk_(Walk::to_share(state.history)),
      next_(walk_(state.mesh_beg).begin()) {}

void Pieces::share(std::int32_t threads, const std::function<void()>& work) {
  {
    const Helpers helpers(static_cast<std::size_t>(threads - 1), work);
    work();
  }
  if (thrown_by_handler_) std::rethrow_exception(thrown_by_handler_);
}

Piece Pieces::take() {
  if (std::this_thread::get_id() == caller_) tell_progress();
  const std::scoped_lock lock(mutex_);
  Piece piece;
  if (failed_ || !(next_ != nullptr)) return piece;
  piece.first = &*next_;
  piece.number = number_;
  piece.place = place_++;
  for (std::int32_t i = 0; i < nodes_of_a_piece && next_ != nullptr; ++i, ++next_) {
    const bool known = number_ < history_.size();
    if (known && history_[number_] == TraversalHistory::entry_of(&*next_)) ++number_;
    ++nb_untold_;
  }
  if (next_ != nullptr) piece.end = &*next_;
  return piece;
}

void Pieces::fail() {
  const std::scoped_lock lock(mutex_);
  failed_ = true;
}

void Pieces::tell_progress() {
  std::int32_t nb_steps = 0;
  {
    const std::scoped_lock lock(mutex_);
    std::swap(nb_steps, nb_untold_);
  }
  try {
    while (nb_steps-- > 0) progress_.step();
  } catch (...) {
    thrown_by_handler_ = std::current_exception();
    fail();
  }
}

}  // namespace velmar_2d::detail
