// Threads that help for a while.
#include <new>
#include <system_error>

#include "velmar_2D/base/base.hpp"

namespace velmar_2d::detail {

Helpers::Helpers(std::size_t number, const std::function<void()>& work) {
  try {
    threads_.reserve(number);
    while (number-- > 0) threads_.emplace_back(work);
  } catch (const std::system_error&) {  // those that there are will do
  } catch (const std::bad_alloc&) {
  }
}

Helpers::~Helpers() {
  for (std::thread& thread : threads_) thread.join();
}

}  // namespace velmar_2d::detail
