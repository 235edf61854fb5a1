#include "velmar_2D/base/base.hpp"

namespace velmar_2d::detail {

void ProgressTeller::look() {
  done_ += steps_between_looks;
  until_look_ = steps_between_looks;
  look_aside();
}

void ProgressTeller::look_aside() {
  if (!handler) return;
  const auto now = std::chrono::steady_clock::now();
  if (std::chrono::duration<double>(now - last_).count() < seconds_between_calls) return;
  last_ = now;
  handler({phase_, done_, known_});
}

}  // namespace velmar_2d::detail
