#include "velmar_2D/base/base.hpp"

namespace velmar_2d::detail {

void ProgressTeller::look() {
  constexpr auto least_time = std::chrono::milliseconds(100);
  done_ += steps_between_looks;
  until_look_ = steps_between_looks;
  if (!handler) return;
  const auto now = std::chrono::steady_clock::now();
  if (now < next_) return;
  next_ = now + least_time;
  handler({phase_, done_, known_});
}

}  // namespace velmar_2d::detail
