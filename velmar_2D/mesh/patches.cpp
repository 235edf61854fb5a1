// The nodes of a mesh, patch by patch.
//
// Which nodes are left is a bit for each slot in memory, a word for each block: whether a neighbour
// is left is found out without reading it. So a patch is known before its nodes come into the
// cache, and each is read once: in the order of the list it comes for itself and for each stretch
// of its neighbours.
#include <bit>

#include "velmar_2D/mesh/state.hpp"

namespace velmar_2d::detail {

Patches::Patches(const NodeMemory& memory, bool shared) : is_shared_(shared) {
  std::vector<TakenSlots> blocks = memory.taken_slots();
  std::sort(blocks.begin(), blocks.end(),
            [](const TakenSlots& a, const TakenSlots& b) { return a.block < b.block; });
  // Slabs lie side by side in a few regions. Gaps that are small cost little.
  constexpr std::size_t largest_gap = 1 << 14;
  std::size_t nb_words = 0;
  for (const TakenSlots& taken : blocks) {
    if (regions_.empty() || taken.block - regions_.back().last > largest_gap) {
      regions_.push_back({taken.block, taken.block, nb_words});
    }
    nb_words += taken.block - regions_.back().last;
    regions_.back().last = taken.block;
    if (taken.block == regions_.back().first) ++nb_words;
  }
  left_ = std::vector<std::atomic<std::uint64_t>>(nb_words);
  for (const TakenSlots& taken : blocks) *word_of(taken.block) = taken.slots;
}

std::atomic<std::uint64_t>* Patches::word_of(std::uintptr_t block) {
  for (const Region& region : regions_) {
    if (block >= region.first && block <= region.last) {
      return &left_[region.first_word + (block - region.first)];
    }
  }
  return nullptr;
}

/// Whether a node was left. From now on it is not.
VELMAR_2D_ALWAYS_INLINE bool Patches::take(const Cell* c) {
  const auto address = reinterpret_cast<std::uintptr_t>(c);
  std::atomic<std::uint64_t>* word = word_of(address / block_bytes);
  if (word == nullptr) return false;  // a node of the caller's own
  const std::uint64_t bit = std::uint64_t{1} << address / sizeof(Cell) % slots_per_block;
  const std::uint64_t left = word->load(std::memory_order_relaxed);
  if (!is_shared_) {
    word->store(left & ~bit, std::memory_order_relaxed);
    return (left & bit) != 0;
  }
  return (left & bit) != 0 && (word->fetch_and(~bit, std::memory_order_relaxed) & bit) != 0;
}

Cell* Patches::take_first() {
  const std::scoped_lock lock(mutex_);
  for (; region_ < regions_.size(); ++region_, block_ = 0) {
    const Region& region = regions_[region_];
    for (; block_ <= region.last - region.first; ++block_) {
      const std::atomic<std::uint64_t>& word = left_[region.first_word + block_];
      while (const std::uint64_t left = word.load(std::memory_order_relaxed)) {
        const auto slot = static_cast<std::uintptr_t>(std::countr_zero(left));
        auto* c =
            reinterpret_cast<Cell*>((region.first + block_) * block_bytes + slot * sizeof(Cell));
        if (take(c)) return c;
      }
    }
  }
  return nullptr;
}

std::span<Cell* const> Patches::next(std::vector<Cell*>& room) {
  constexpr std::size_t most_nodes = 2048, ahead = 8;
  room.resize(most_nodes + nb_directions);
  Cell* first = take_first();
  if (first == nullptr) return {};
  room[0] = first;
  std::size_t n = 1;
  for (std::size_t i = 0; i < n && n < most_nodes; ++i) {
    if (i + ahead < n) prefetch_lines(room[i + ahead], 3);
    for (int d = 0; d < nb_directions; ++d) {
      Cell* neighbour = link(*room[i], d).cell();
      if (neighbour == nullptr) continue;
      room[n] = neighbour;
      n += take(neighbour) ? 1 : 0;
    }
  }
  return std::span(room).first(n);
}

}  // namespace velmar_2d::detail
