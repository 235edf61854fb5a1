#include "boxes.hpp"

#include <algorithm>
#include <cmath>

namespace velmar_2d {

namespace {

class Cutter {
 public:
  explicit Cutter(const CellWeights& weights) : columns_(weights.columns) {
    // Sums over all cells to the lower left, so that any box is four of them.
    sums_.assign(
        static_cast<std::size_t>(columns_ + 1) * static_cast<std::size_t>(weights.rows + 1), 0);
    for (std::int32_t j = 0; j < weights.rows; ++j) {
      for (std::int32_t i = 0; i < columns_; ++i) {
        sum(i + 1, j + 1) =
            sum(i, j + 1) + sum(i + 1, j) - sum(i, j) +
            weights.weights[static_cast<std::size_t>(j) * static_cast<std::size_t>(columns_) +
                            static_cast<std::size_t>(i)];
      }
    }
  }

  void cut(const Window& box, int nb_parts, std::vector<PlaceBox>& boxes) {
    if (nb_parts == 1) {
      boxes.emplace_back(box);
      return;
    }
    Best best;
    for (std::int32_t line = box.west + 1; line < box.east; ++line) {
      consider(best, box, {box.west, line, box.south, box.north},
               {line, box.east, box.south, box.north}, nb_parts);
    }
    for (std::int32_t line = box.south + 1; line < box.north; ++line) {
      consider(best, box, {box.west, box.east, box.south, line},
               {box.west, box.east, line, box.north}, nb_parts);
    }
    cut(best.lower, best.nb_lower, boxes);
    cut(best.upper, nb_parts - best.nb_lower, boxes);
  }

 private:
  struct Best {
    double cost = 1e300;
    Window lower, upper;
    int nb_lower = 0;  ///< parts
  };
  static std::int64_t nb_cells(const Window& box) {
    return std::int64_t{box.east - box.west} * (box.north - box.south);
  }
  std::int64_t& sum(std::int32_t column, std::int32_t row) {
    return sums_[static_cast<std::size_t>(row) * static_cast<std::size_t>(columns_ + 1) +
                 static_cast<std::size_t>(column)];
  }
  double weight(const Window& box) {
    return static_cast<double>(sum(box.east, box.north) - sum(box.west, box.north) -
                               sum(box.east, box.south) + sum(box.west, box.south));
  }
  /// What a part of the heavier side has to bear, and a little for long cuts and for narrow strips,
  /// which make ghosts. Each side gets as many parts as are nearest to its share of the weight, as
  /// far as it has cells for them.
  void consider(Best& best, const Window& box, const Window& lower, const Window& upper,
                int nb_parts) {
    const double share = weight(lower) / std::max(weight(box), 1.0);
    const std::int64_t nb_lower =
        std::clamp<std::int64_t>(std::llround(share * nb_parts),
                                 nb_parts - std::min<std::int64_t>(nb_cells(upper), nb_parts - 1),
                                 std::min<std::int64_t>(nb_cells(lower), nb_parts - 1));
    const double load = std::max(share / static_cast<double>(nb_lower),
                                 (1.0 - share) / static_cast<double>(nb_parts - nb_lower));
    const double length = lower.east != upper.east ? box.north - box.south : box.east - box.west;
    const double round = (box.north - box.south) + (box.east - box.west);
    const double strip = std::abs(2.0 * static_cast<double>(nb_lower) / nb_parts - 1.0);
    const double cost = load * nb_parts + 0.02 * (length / round + strip);
    if (cost < best.cost) best = {cost, lower, upper, static_cast<int>(nb_lower)};
  }

  std::int32_t columns_;
  std::vector<std::int64_t> sums_;
};

}  // namespace

std::vector<PlaceBox> cut_into_boxes(const CellWeights& weights, int nb_parts) {
  std::vector<PlaceBox> boxes;
  if (nb_parts < 1 || std::int64_t{weights.columns} * weights.rows < nb_parts) return boxes;
  Cutter(weights).cut({0, weights.columns, 0, weights.rows}, nb_parts, boxes);
  return boxes;
}

Owners::Owners(std::span<const PlaceBox> boxes) { root_ = cut(boxes, 0); }

/// The line that has the first boxes on one side and the others on the other.
int Owners::cut(std::span<const PlaceBox> boxes, int first) {
  const std::size_t n = boxes.size();
  if (n == 1) return -1 - first;
  std::vector<Place> from(boxes.size());  // where those begin that come from there on
  Place least = boxes.back().low;
  for (std::size_t k = n; k-- > 0;) {
    least = {std::min(least.x, boxes[k].low.x), std::min(least.y, boxes[k].low.y)};
    from[k] = least;
  }
  Place most = boxes.front().high;
  std::size_t nb_lower = 1;
  for (; nb_lower < n - 1; ++nb_lower) {
    if (most.x <= from[nb_lower].x || most.y <= from[nb_lower].y) break;
    most = {std::max(most.x, boxes[nb_lower].high.x), std::max(most.y, boxes[nb_lower].high.y)};
  }
  const auto number = cuts_.size();
  const bool along_x = most.x <= from[nb_lower].x;
  cuts_.push_back({along_x, along_x ? most.x : most.y, 0, 0});
  const int lower = cut(boxes.first(nb_lower), first);
  const int upper = cut(boxes.subspan(nb_lower), first + static_cast<int>(nb_lower));
  cuts_[number].lower = lower;
  cuts_[number].upper = upper;
  return static_cast<int>(number);
}

int Owners::of(Place place) const {
  int next = root_;
  while (next >= 0) {
    const Cut& here = cuts_[static_cast<std::size_t>(next)];
    next = (here.along_x ? place.x : place.y) < here.line ? here.lower : here.upper;
  }
  return -1 - next;
}

}  // namespace velmar_2d
