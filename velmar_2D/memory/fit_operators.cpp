#include <new>

#include "velmar_2D/memory/memory.hpp"

namespace velmar_2d::detail {

FitOperators::~FitOperators() { forget(); }

void FitOperators::forget() {
  for (auto& place : places_) delete place.exchange(nullptr);
}

const FitOperator* FitOperators::find(std::uint64_t key) const {
  const std::size_t first = first_place(key);
  for (std::size_t i = 0; i < places_of_a_key; ++i) {
    const FitOperator* op = places_[(first + i) % nb_places].load(std::memory_order_acquire);
    if (op == nullptr || op->key == key) return op;
  }
  return nullptr;
}

const FitOperator* FitOperators::keep(const FitOperator& op) {
  const FitOperator* copy = nullptr;
  const std::size_t first = first_place(op.key);
  for (std::size_t i = 0; i < places_of_a_key; ++i) {
    auto& place = places_[(first + i) % nb_places];
    const FitOperator* there = place.load(std::memory_order_acquire);
    if (there == nullptr) {
      if (copy == nullptr) copy = new (std::nothrow) FitOperator(op);
      if (copy == nullptr) return nullptr;
      if (place.compare_exchange_strong(there, copy, std::memory_order_acq_rel)) return copy;
    }
    if (there != nullptr && there->key == op.key) {  // another thread was faster
      delete copy;
      return there;
    }
  }
  delete copy;
  return nullptr;
}

}  // namespace velmar_2d::detail
