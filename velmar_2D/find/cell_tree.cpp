// Rectangles in a tree that never changes: sorted along a curve that fills the plane, each four in
// a row in one of the next.
#include "velmar_2D/find/find.hpp"

namespace velmar_2d::detail {

namespace {

/// Bits of a number, with a gap after each.
std::uint64_t spread(std::uint32_t number) {
  std::uint64_t bits = number;
  bits = (bits | bits << 16) & 0x0000ffff0000ffffU;
  bits = (bits | bits << 8) & 0x00ff00ff00ff00ffU;
  bits = (bits | bits << 4) & 0x0f0f0f0f0f0f0f0fU;
  bits = (bits | bits << 2) & 0x3333333333333333U;
  return (bits | bits << 1) & 0x5555555555555555U;
}

/// Where a coordinate lies between two others, in units of 2^-32 of the way.
std::uint32_t along(double from, double to, double at) {
  constexpr double units = 4294967295.0;
  return to > from ? static_cast<std::uint32_t>(units * ((at - from) / (to - from))) : 0;
}

}  // namespace

void CellTree::reserve(std::size_t nb_cells) {
  keys_.reserve(nb_cells);
  boxes_.reserve(nb_cells + nb_cells / (width - 1) + most_rows);
}

void CellTree::build(std::vector<std::uint32_t>& cells,
                     const std::function<Bounds(std::uint32_t cell)>& bounds_of) {
  boxes_.clear();
  keys_.clear();
  nb_rows_ = 0;
  if (cells.empty()) return;
  Bounds all;
  for (const std::uint32_t cell : cells) {
    boxes_.push_back(bounds_of(cell));
    all.add(boxes_.back());
  }
  for (std::size_t i = 0; i < cells.size(); ++i) {
    const Bounds& of = boxes_[i];
    const std::uint32_t x = along(all.west, all.east, 0.5 * (of.west + of.east));
    const std::uint32_t y = along(all.south, all.north, 0.5 * (of.south + of.north));
    keys_.emplace_back(spread(x) | spread(y) << 1, cells[i]);
  }
  std::sort(keys_.begin(), keys_.end());
  boxes_.clear();
  for (std::size_t i = 0; i < cells.size(); ++i) {
    cells[i] = keys_[i].second;
    boxes_.push_back(bounds_of(cells[i]));
  }
  first_of_row_[0] = 0;
  for (nb_rows_ = 1; boxes_.size() - first_of_row_[nb_rows_ - 1] > 1; ++nb_rows_) {
    const std::size_t first = first_of_row_[nb_rows_ - 1], end = boxes_.size();
    first_of_row_[nb_rows_] = end;
    for (std::size_t i = first; i < end; i += width) {
      Bounds joined;
      for (std::size_t k = i; k < std::min(i + width, end); ++k) joined.add(boxes_[k]);
      boxes_.push_back(joined);
    }
  }
}

}  // namespace velmar_2d::detail
