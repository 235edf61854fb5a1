// Cutting the grid into boxes.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "velmar_2D/records.hpp"

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

/// Boxes of about the same weight, one for each part: the grid is cut in two along the line that
/// balances best, each part of it again. Empty where there are more parts than cells.
std::vector<Window> cut_into_boxes(const CellWeights& weights, int nb_parts);

}  // namespace velmar_2d
