// The list, handed out to several threads.
#include <new>
#include <system_error>

#include "velmar_2D/derivatives/derivatives.hpp"

namespace velmar_2d::detail {

Piece Pieces::take() {
  const std::scoped_lock lock(mutex_);
  Piece piece;
  if (failed_ || !(next_ != nullptr)) return piece;
  piece.first = &*next_;
  piece.number = number_;
  piece.place = place_++;
  for (std::int32_t i = 0; i < nodes_of_a_piece && next_ != nullptr; ++i, ++next_) {
    const bool known = number_ < history_.size();
    if (known && history_[number_] == TraversalHistory::entry_of(&*next_)) ++number_;
  }
  if (next_ != nullptr) piece.end = &*next_;
  return piece;
}

void Pieces::fail() {
  const std::scoped_lock lock(mutex_);
  failed_ = true;
}

Helpers::Helpers(int number, const std::function<void()>& work) {
  try {
    threads_.reserve(static_cast<std::size_t>(number));
    while (number-- > 0) threads_.emplace_back(work);
  } catch (const std::system_error&) {  // those that there are will do
  } catch (const std::bad_alloc&) {
  }
}

Helpers::~Helpers() {
  for (std::thread& thread : threads_) thread.join();
}

}  // namespace velmar_2d::detail
