// Cutting the rectangle into boxes: halved along a line, and each part of it again.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <vector>

#include "velmar_2D/piece.hpp"

namespace velmar_2d {

/// Weights of the cells of a grid, row by row from the lower left one.
struct CellWeights {
  std::int32_t columns = 0, rows = 0;
  std::vector<std::int64_t> weights;

  std::int64_t& at(std::int32_t column, std::int32_t row) {
    return weights[static_cast<std::size_t>(row) * static_cast<std::size_t>(columns) +
                   static_cast<std::size_t>(column)];
  }
};

/// Boxes of cells of the grid of about the same weight, one for each part: cut along the line that
/// balances best. Empty where there are more parts than cells.
std::vector<PlaceBox> cut_into_boxes(const CellWeights& weights, int nb_parts);

/// Sums over all processes, of numbers that each has.
using SumOfAll = std::function<std::vector<std::int64_t>(std::vector<std::int64_t>)>;

/// Boxes of about as many places each, one for each part, cut along lines that are multiples of the
/// finest spacing. All processes get the same.
///
/// @param whole     what is cut
/// @param places    those of this process
/// @param nb_parts  boxes
/// @param finest    spacing, a power of 2
/// @param sum       is called by all processes equally often
std::vector<PlaceBox> cut_by_places(const PlaceBox& whole, std::vector<Place> places, int nb_parts,
                                    std::int64_t finest, const SumOfAll& sum);

/// Whose a place is, of boxes that were cut as above.
class Owners {
 public:
  Owners() = default;
  explicit Owners(std::span<const PlaceBox> boxes);
  int of(Place place) const;

 private:
  /// Boxes on both sides of a line, those of the lower side first.
  struct Cut {
    bool along_x = false;  ///< else y
    std::int64_t line = 0;
    int lower = 0, upper = 0;  ///< further cuts; below 0: the box with that number, less 1, negated
  };
  int cut(std::span<const PlaceBox> boxes, int first);
  std::vector<Cut> cuts_;
  int root_ = -1;
};

}  // namespace velmar_2d
