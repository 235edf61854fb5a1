// Boxes of as many nodes each, cut anywhere between the lines of the grid.
//
// All boxes of a generation are halved together. The line that halves a box along x, and the one
// along y, are found by counting its nodes in a few strips, then in strips of the one in which the
// half is reached, and so on: so a process sends some hundred numbers for each box, however many
// nodes and cells there are.
#include <algorithm>
#include <cmath>

#include "boxes.hpp"

namespace velmar_2d {

namespace {

constexpr std::int64_t nb_strips = 32;
/// A strip needs not be cut further where that many nodes of one part lie in it.
constexpr double negligible = 0.004;
/// What a cut as long as half the way round its box may cost, in nodes of a part. Long cuts make
/// ghosts.
constexpr double cost_of_length = 0.1;

/// Where, along one axis, the line lies that halves a box: between two lines.
struct Search {
  std::int64_t low, high;
  std::int64_t nb_below_low = 0, nb_below_high = 0;  ///< nodes of the box
  std::int64_t width = 0;                            ///< of strips
  std::size_t first = 0;                             ///< of the strips in what is summed
  bool is_done = false;

  std::size_t nb() const { return static_cast<std::size_t>((high - 1) / width - low / width + 1); }
  std::size_t strip_of(std::int64_t at) const {
    return first + static_cast<std::size_t>(at / width - low / width);
  }
};

struct OpenBox {
  PlaceBox box;
  int nb_parts;
  std::span<Place> places;  ///< of this process
  std::int64_t nb_places = 0;
  std::array<Search, 2> searches{};  ///< along x and y
};

std::int64_t along(const Place& place, std::size_t axis) { return axis == 0 ? place.x : place.y; }

class Bisection {
 public:
  Bisection(std::int64_t finest, const SumOfAll& sum) : finest_(finest), sum_(sum) {}

  std::vector<PlaceBox> cut(const PlaceBox& whole, std::span<Place> places, int nb_parts) {
    open_ = {{whole, nb_parts, places}};
    const auto is_closed = [](const OpenBox& of) { return of.nb_parts == 1; };
    while (!std::all_of(open_.begin(), open_.end(), is_closed)) {
      count();
      while (zoom()) {
      }
      halve();
    }
    std::vector<PlaceBox> boxes;
    for (const OpenBox& of : open_) boxes.push_back(of.box);
    return boxes;
  }

 private:
  void count() {
    std::vector<std::int64_t> numbers;
    for (const OpenBox& of : open_) {
      numbers.push_back(static_cast<std::int64_t>(of.places.size()));
    }
    numbers = sum_(std::move(numbers));
    for (std::size_t i = 0; i < open_.size(); ++i) {
      OpenBox& of = open_[i];
      of.nb_places = numbers[i];
      for (std::size_t axis = 0; axis < 2; ++axis) {
        of.searches[axis] = {along(of.box.low, axis), along(of.box.high, axis), 0, of.nb_places};
        of.searches[axis].is_done = of.nb_parts == 1;
      }
    }
  }

  /// Strips are at least as wide as the finest spacing, or half as wide as a box that is no wider.
  bool begin_strips(Search& search, std::size_t& nb_numbers) const {
    const std::int64_t extent = search.high - search.low;
    if (extent < 2 || search.width == finest_) search.is_done = true;
    if (search.is_done) return false;
    search.width = extent > finest_ ? finest_ : extent / 2;
    while (extent / search.width > nb_strips) search.width *= 2;
    search.first = nb_numbers;
    nb_numbers += search.nb();
    return true;
  }

  /// @return whether strips were to be cut further
  bool zoom() {
    std::size_t nb_numbers = 0;
    bool is_any = false;
    for (OpenBox& of : open_) {
      for (Search& search : of.searches) is_any = begin_strips(search, nb_numbers) || is_any;
    }
    if (!is_any) return false;
    std::vector<std::int64_t> numbers(nb_numbers, 0);
    for (const OpenBox& of : open_) {
      for (std::size_t axis = 0; axis < 2; ++axis) {
        const Search& search = of.searches[axis];
        if (search.is_done) continue;
        for (const Place& place : of.places) {
          const std::int64_t at = along(place, axis);
          if (at >= search.low && at < search.high) ++numbers[search.strip_of(at)];
        }
      }
    }
    numbers = sum_(std::move(numbers));
    for (OpenBox& of : open_) {
      for (Search& search : of.searches) {
        if (!search.is_done) narrow(of, search, numbers);
      }
    }
    return true;
  }

  static void narrow(const OpenBox& of, Search& search, const std::vector<std::int64_t>& numbers) {
    const std::int64_t half = of.nb_places * (of.nb_parts / 2) / of.nb_parts;
    const std::int64_t low = search.low, high = search.high;
    for (std::size_t k = 0, n = search.nb(); k < n; ++k) {
      const std::int64_t begin = (low / search.width + static_cast<std::int64_t>(k)) * search.width;
      search.low = std::max(low, begin);
      search.high = std::min(high, begin + search.width);
      search.nb_below_high = search.nb_below_low + numbers[search.first + k];
      if (search.nb_below_high >= half) break;
      if (k + 1 < n) search.nb_below_low = search.nb_below_high;
    }
    const auto nb_between = static_cast<double>(search.nb_below_high - search.nb_below_low);
    const double even = static_cast<double>(of.nb_places) / of.nb_parts;
    search.is_done = nb_between <= negligible * even;
  }

  struct Best {
    double cost = 1e300;
    std::size_t axis = 0;
    std::int64_t line = 0;
    int nb_lower = 0;  ///< parts
  };
  static void consider(Best& best, const OpenBox& of, std::size_t axis, std::int64_t line,
                       std::int64_t nb_below) {
    if (line <= along(of.box.low, axis) || line >= along(of.box.high, axis)) return;
    const auto all = static_cast<double>(std::max<std::int64_t>(of.nb_places, 1));
    const double share = static_cast<double>(nb_below) / all;
    const int nb_lower =
        std::clamp(static_cast<int>(std::lround(share * of.nb_parts)), 1, of.nb_parts - 1);
    const double load =
        std::max(share / nb_lower, (1.0 - share) / (of.nb_parts - nb_lower)) * of.nb_parts;
    const auto extent = [&](std::size_t a) {
      return static_cast<double>(along(of.box.high, a) - along(of.box.low, a));
    };
    const double cost = load + cost_of_length * extent(1 - axis) / (extent(0) + extent(1));
    if (cost < best.cost) best = {cost, axis, line, nb_lower};
  }

  void halve() {
    std::vector<OpenBox> halves;
    for (const OpenBox& of : open_) {
      if (of.nb_parts == 1) {
        halves.push_back(of);
        continue;
      }
      Best best;
      for (std::size_t axis = 0; axis < 2; ++axis) {
        const Search& search = of.searches[axis];
        consider(best, of, axis, search.low, search.nb_below_low);
        consider(best, of, axis, search.high, search.nb_below_high);
      }
      if (best.nb_lower == 0) throw Error("there are more processes than places for nodes");
      PlaceBox lower = of.box, upper = of.box;
      (best.axis == 0 ? lower.high.x : lower.high.y) = best.line;
      (best.axis == 0 ? upper.low.x : upper.low.y) = best.line;
      const auto middle =
          std::partition(of.places.begin(), of.places.end(),
                         [&](const Place& place) { return along(place, best.axis) < best.line; });
      const auto nb_below = static_cast<std::size_t>(middle - of.places.begin());
      halves.push_back({lower, best.nb_lower, of.places.first(nb_below)});
      halves.push_back({upper, of.nb_parts - best.nb_lower, of.places.subspan(nb_below)});
    }
    open_ = std::move(halves);
  }

  std::int64_t finest_;
  const SumOfAll& sum_;
  std::vector<OpenBox> open_;
};

}  // namespace

std::vector<PlaceBox> cut_by_places(const PlaceBox& whole, std::vector<Place> places, int nb_parts,
                                    std::int64_t finest, const SumOfAll& sum) {
  // Nodes on the last lines of the whole belong to it.
  for (Place& place : places) {
    place = {std::min(place.x, whole.high.x - 1), std::min(place.y, whole.high.y - 1)};
  }
  return Bisection(finest, sum).cut(whole, places, nb_parts);
}

}  // namespace velmar_2d
