#include <algorithm>

#include "velmar_2D/arrays/arrays.hpp"

namespace velmar_2d::detail {

void NodeNumbers::forget() {
  constexpr std::size_t fewest_slots = 16;
  pages_.clear();
  slots_.assign(fewest_slots, {});
  last_ = {};
  insert({0, &nothing_});
}

std::int32_t* NodeNumbers::place_for(const Cell* c) {
  const auto address = reinterpret_cast<std::uintptr_t>(c);
  const std::uintptr_t page = address / page_bytes;
  if (last_.page != page) {
    std::size_t i = hash_of(page) & (slots_.size() - 1);
    while (slots_[i].page != page && slots_[i].numbers != nullptr) {
      i = (i + 1) & (slots_.size() - 1);
    }
    if (slots_[i].numbers != nullptr) {
      last_ = slots_[i];
    } else {
      add_page(page);
    }
  }
  return last_.numbers + address % page_bytes / sizeof(Cell);
}

void NodeNumbers::insert(const Slot& slot) {
  std::size_t i = hash_of(slot.page) & (slots_.size() - 1);
  while (slots_[i].numbers != nullptr) i = (i + 1) & (slots_.size() - 1);
  slots_[i] = slot;
}

void NodeNumbers::add_page(std::uintptr_t page) {
  if (2 * (pages_.size() + 2) > slots_.size()) {
    std::vector<Slot> slots(2 * slots_.size());
    slots.swap(slots_);
    for (const Slot& slot : slots) {
      if (slot.numbers != nullptr) insert(slot);
    }
  }
  pages_.push_back(std::unique_ptr<std::int32_t[]>(new std::int32_t[nodes_of_page]));
  std::int32_t* numbers = pages_.back().get();
  std::fill_n(numbers, nodes_of_page, unknown);
  last_ = {page, numbers};
  insert(last_);
}

}  // namespace velmar_2d::detail
