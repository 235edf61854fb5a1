#include <exception>
#include <mutex>

#include "velmar_2D/arrays/arrays.hpp"

namespace velmar_2d::detail {

namespace {

/// What several threads work at together.
struct Work {
  std::size_t n, numbers_of_part;
  const std::function<void(std::size_t begin, std::size_t end)>& part;
  std::atomic<std::size_t> next = 0;
  std::mutex failing{};
  std::exception_ptr failure{};  ///< the first one

  void take_parts() noexcept {
    try {
      for (std::size_t begin = next.fetch_add(numbers_of_part); begin < n;
           begin = next.fetch_add(numbers_of_part)) {
        part(begin, std::min(begin + numbers_of_part, n));
      }
    } catch (...) {
      next = n;
      const std::scoped_lock lock(failing);
      if (!failure) failure = std::current_exception();
    }
  }
};

}  // namespace

void in_parts(std::size_t n, std::int32_t threads,
              const std::function<void(std::size_t begin, std::size_t end)>& work,
              std::size_t numbers_of_part) {
  const std::size_t most = std::max<std::size_t>(1, n / numbers_of_part);
  const std::size_t number =
      std::min(most, static_cast<std::size_t>(std::max<std::int32_t>(threads, 1)));
  Work shared{n, numbers_of_part, work};
  {
    const Helpers helpers(number - 1, [&shared] { shared.take_parts(); });
    shared.take_parts();
  }
  if (shared.failure) std::rethrow_exception(shared.failure);
}

}  // namespace velmar_2d::detail
