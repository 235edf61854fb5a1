#include <exception>
#include <mutex>

#include "velmar_2D/arrays/arrays.hpp"

namespace velmar_2d::detail {

void in_threads(std::size_t threads, const std::function<void()>& work) {
  std::mutex failing;
  std::exception_ptr failure;  // the first one
  const auto work_to_the_end = [&]() noexcept {
    try {
      work();
    } catch (...) {
      const std::scoped_lock lock(failing);
      if (!failure) failure = std::current_exception();
    }
  };
  {
    const Helpers helpers(threads - 1, work_to_the_end);
    work_to_the_end();
  }
  if (failure) std::rethrow_exception(failure);
}

void in_parts(std::size_t n, std::int32_t threads,
              const std::function<void(std::size_t begin, std::size_t end)>& work,
              std::size_t numbers_of_part) {
  const std::size_t most = std::max<std::size_t>(1, n / numbers_of_part);
  std::atomic<std::size_t> next = 0;
  in_threads(std::min(most, static_cast<std::size_t>(std::max<std::int32_t>(threads, 1))), [&] {
    try {
      for (std::size_t begin = next.fetch_add(numbers_of_part); begin < n;
           begin = next.fetch_add(numbers_of_part)) {
        work(begin, std::min(begin + numbers_of_part, n));
      }
    } catch (...) {
      next = n;
      throw;
    }
  });
}

}  // namespace velmar_2d::detail
