// The list, handed out to several threads.
#include "velmar_2D/mesh/state.hpp"

namespace velmar_2d::detail {

Portions::Portions(const State& state)
    : history_(state.history),
      progress_(state.progress),
      walk_(Walk::to_share(state.history)),
      next_(walk_(state.mesh_beg).begin()) {}

void Portions::share(std::int32_t threads, const std::function<void()>& work) {
  {
    const Helpers helpers(static_cast<std::size_t>(threads - 1), work);
    work();
  }
  if (thrown_by_handler_) std::rethrow_exception(thrown_by_handler_);
}

Portion Portions::take() {
  if (std::this_thread::get_id() == caller_) tell_progress();
  const std::scoped_lock lock(mutex_);
  Portion portion;
  if (failed_ || !(next_ != nullptr)) return portion;
  portion.first = &*next_;
  portion.number = number_;
  portion.place = place_++;
  for (std::int32_t i = 0; i < nodes_of_a_portion && next_ != nullptr; ++i, ++next_) {
    const bool known = number_ < history_.size();
    if (known && history_[number_] == TraversalHistory::entry_of(&*next_)) ++number_;
    ++nb_untold_;
  }
  if (next_ != nullptr) portion.end = &*next_;
  return portion;
}

void Portions::fail() {
  const std::scoped_lock lock(mutex_);
  failed_ = true;
}

void Portions::tell_progress() {
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
