#include <bit>
#include <new>

#include "velmar_2D/memory/memory.hpp"

namespace velmar_2d::detail {

namespace {

/// A set of entries: a table with open addressing.
class Entries {
 public:
  using Entry = TraversalHistory::Entry;

  explicit Entries(std::span<const Entry> entries)
      : slots_(std::bit_ceil(4 * entries.size() + 1), 0), may_hold_(8 * slots_.size(), false) {
    for (const Entry entry : entries) {
      slots_[slot_of(entry)] = entry;
      may_hold_[entry & (may_hold_.size() - 1)] = true;
    }
  }
  bool contains(Entry entry) const {
    return may_hold_[entry & (may_hold_.size() - 1)] && slots_[slot_of(entry)] == entry;
  }

 private:
  std::size_t slot_of(Entry entry) const {
    std::size_t slot = (entry * 0x9e3779b1U >> 4) & (slots_.size() - 1);
    while (slots_[slot] != 0 && slots_[slot] != entry) slot = (slot + 1) & (slots_.size() - 1);
    return slot;
  }
  std::vector<Entry> slots_;
  /// Mostly enough to look at. By the last bits: slots side by side have theirs side by side.
  std::vector<bool> may_hold_;
};

}  // namespace

void TraversalHistory::begin_recording(std::int32_t nb_nodes) {
  const auto nodes = static_cast<std::size_t>(nb_nodes);
  try {
    // Meshes grow little by little: not by doubling.
    if (nodes > entries_.capacity()) entries_.reserve(nodes + nodes / 16);
    entries_.resize(nodes);
  } catch (const std::bad_alloc&) {
    forget();  // the walks are slower without it, that is all
  }
  begin_ = entries_.size();
}

void TraversalHistory::end_recording(std::uint64_t revision) {
  revision_ = revision;
  entries_.erase(entries_.begin(), entries_.begin() + static_cast<std::ptrdiff_t>(begin_));
}

void TraversalHistory::follow(std::span<const Entry> heads,
                              std::span<const std::vector<Entry>> come, std::span<const Entry> gone,
                              std::uint64_t revision, ProgressTeller& progress) {
  try {
    const Entries has_gone(gone);
    std::size_t nb_nodes = entries_.size();
    for (const std::vector<Entry>& entries : come) nb_nodes += entries.size();
    std::vector<Entry> now;
    now.reserve(nb_nodes);
    std::size_t next = 0;
    for (std::size_t stretch = 0; stretch < heads.size(); ++stretch) {
      now.insert(now.end(), come[stretch].rbegin(), come[stretch].rend());
      if (heads[stretch] == 0) continue;
      std::size_t above = stretch + 1;
      while (above < heads.size() && heads[above] == 0) ++above;
      const Entry end = above < heads.size() ? heads[above] : 0;
      for (; next < entries_.size() && entries_[next] != end; ++next) {
        constexpr std::size_t between_looks = 4096;
        if (next % between_looks == 0) progress.look_aside();
        if (!has_gone.contains(entries_[next])) now.push_back(entries_[next]);
      }
    }
    entries_.swap(now);
    revision_ = revision;
  } catch (const std::bad_alloc&) {
    forget();
  }
}

}  // namespace velmar_2d::detail
