#include <new>

#include "velmar_2D/arrays/arrays.hpp"

#if defined(__linux__)
#include <sys/mman.h>
#endif

namespace velmar_2d::detail {

namespace {

constexpr std::align_val_t alignment_of(std::size_t bytes) {
  return std::align_val_t{bytes >= 2 * huge_page ? huge_page : cache_line};
}

}  // namespace

Room::Room(std::size_t bytes) : begin_(::operator new(bytes, alignment_of(bytes))), bytes_(bytes) {
#if defined(__linux__) && defined(MADV_HUGEPAGE)
  if (bytes >= 2 * huge_page) madvise(begin_, bytes, MADV_HUGEPAGE);
#endif
}

Room::~Room() {
  if (begin_ != nullptr) ::operator delete(begin_, alignment_of(bytes_));
}

}  // namespace velmar_2d::detail
