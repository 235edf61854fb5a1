#include <algorithm>
#include <bitset>
#include <new>
#include <unordered_map>

#include "velmar_2D/memory/memory.hpp"

namespace velmar_2d::detail {

namespace {

/// A set of entries: bits, in pieces. Walks stay in one piece for a while.
class Entries {
 public:
  using Entry = TraversalHistory::Entry;

  explicit Entries(std::span<const Entry> entries) {
    for (const Entry entry : entries) {
      if (piece_ == nullptr || entry / slots_of_a_piece != number_) {
        number_ = entry / slots_of_a_piece;
        piece_ = &pieces_[number_];
      }
      piece_->set(entry % slots_of_a_piece);
    }
  }
  bool contains(Entry entry) {
    if (entry / slots_of_a_piece != number_) {
      number_ = entry / slots_of_a_piece;
      const auto found = pieces_.find(number_);
      piece_ = found == pieces_.end() ? nullptr : &found->second;
    }
    return piece_ != nullptr && piece_->test(entry % slots_of_a_piece);
  }

 private:
  static constexpr Entry slots_of_a_piece = 4096;
  using Piece = std::bitset<slots_of_a_piece>;

  std::unordered_map<Entry, Piece> pieces_;
  Piece* piece_ = nullptr;  ///< the last one, if it is there
  Entry number_ = 0;
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

void TraversalHistory::end_recording() {
  entries_.erase(entries_.begin(), entries_.begin() + static_cast<std::ptrdiff_t>(begin_));
}

void TraversalHistory::follow(std::span<const Entry> heads, std::span<Cell* const> come,
                              std::span<const Entry> gone) {
  constexpr std::size_t ahead = 16;
  try {
    Entries has_gone(gone);
    std::vector<std::vector<Entry>> come_to(heads.size());
    for (std::size_t i = 0; i < come.size(); ++i) {
      if (i + ahead < come.size()) prefetch(come[i + ahead]);
      come_to[static_cast<std::size_t>(come[i]->ipos)].push_back(entry_of(come[i]));
    }
    // Those that stay move together, and then, the last stretch first, to their places.
    std::vector<std::size_t> end_of(heads.size());
    std::size_t next = 0, nb_kept = 0;
    for (std::size_t stretch = 0; stretch < heads.size(); ++stretch) {
      if (heads[stretch] != 0) {
        std::size_t above = stretch + 1;
        while (above < heads.size() && heads[above] == 0) ++above;
        const Entry end = above < heads.size() ? heads[above] : 0;
        for (; next < entries_.size() && entries_[next] != end; ++next) {
          entries_[nb_kept] = entries_[next];
          nb_kept += has_gone.contains(entries_[next]) ? 0 : 1;
        }
      }
      end_of[stretch] = nb_kept;
    }
    std::size_t end = nb_kept + come.size();
    if (end > entries_.capacity()) entries_.reserve(end + end / 16);
    entries_.resize(end);
    for (std::size_t stretch = heads.size(); stretch-- > 0;) {
      const std::size_t begin = stretch == 0 ? 0 : end_of[stretch - 1];
      const auto at = [this](std::size_t i) {
        return entries_.begin() + static_cast<std::ptrdiff_t>(i);
      };
      std::copy_backward(at(begin), at(end_of[stretch]), at(end));
      end -= end_of[stretch] - begin + come_to[stretch].size();
      std::copy(come_to[stretch].rbegin(), come_to[stretch].rend(), at(end));
    }
  } catch (const std::bad_alloc&) {
    forget();
  }
}

}  // namespace velmar_2d::detail
