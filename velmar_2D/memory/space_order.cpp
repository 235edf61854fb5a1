// The nodes along a curve that fills the plane.
//
// The curve goes through the squares of a grid over the domain: the bits of column and row, in
// turns, are the place of a square on it (G. M. Morton, A computer oriented geodetic data base, IBM
// 1966). Nodes of one square keep the order of the list.
#include <new>

#include "velmar_2D/memory/memory.hpp"

namespace velmar_2d::detail {

namespace {

constexpr int bits_of_axis = 16;

/// Of a node in the list.
struct Placed {
  std::uint32_t place, number;
};

/// The bits of a 16-bit number, each followed by a 0.
constexpr std::uint32_t with_gaps(std::uint32_t bits) {
  bits = (bits | bits << 8) & 0x00ff00ffU;
  bits = (bits | bits << 4) & 0x0f0f0f0fU;
  bits = (bits | bits << 2) & 0x33333333U;
  return (bits | bits << 1) & 0x55555555U;
}

class Curve {
 public:
  explicit Curve(const Domain& domain)
      : x_min_(domain.x_min),
        y_min_(domain.y_min),
        squares_per_unit_(nb_squares /
                          std::max(domain.x_max - domain.x_min, domain.y_max - domain.y_min)) {}
  std::uint32_t place_of(const Cell& c) const {
    return with_gaps(square_of(c.x - x_min_)) | with_gaps(square_of(c.y - y_min_)) << 1;
  }

 private:
  static constexpr double nb_squares = 1 << bits_of_axis;
  std::uint32_t square_of(double offset) const {
    return static_cast<std::uint32_t>(std::clamp(offset * squares_per_unit_, 0.0, nb_squares - 1));
  }

  double x_min_, y_min_, squares_per_unit_;
};

/// Sorts by the place, digit by digit from the lowest one on.
void sort(std::vector<Placed>& placed) {
  constexpr int bits_of_digit = 11;
  constexpr std::uint32_t base = 1U << bits_of_digit;
  std::vector<Placed> sorted(placed.size());
  for (int shift = 0; shift < 2 * bits_of_axis; shift += bits_of_digit) {
    const auto digit = [=](const Placed& p) { return (p.place >> shift) % base; };
    std::array<std::uint32_t, base> next{};
    for (const Placed& p : placed) ++next[digit(p)];
    std::uint32_t before = 0;
    for (std::uint32_t& n : next) before += std::exchange(n, before);
    for (const Placed& p : placed) sorted[next[digit(p)]++] = p;
    placed.swap(sorted);
  }
}

}  // namespace

bool SpaceOrder::begin_pass(Cell* mesh_beg, std::int32_t nb_nodes, std::uint64_t revision,
                            const Domain& domain, const TraversalHistory& history) {
  constexpr std::int32_t fewest_nodes = 1 << 12;  // below, all are in the cache anyway
  if (!has_passed_ || revision != revision_) {
    forget();
    has_passed_ = true;
    revision_ = revision;
    return false;
  }
  if (!nodes_.empty()) return true;
  if (nb_nodes < fewest_nodes) return false;
  try {
    return make(mesh_beg, static_cast<std::size_t>(nb_nodes), domain, history);
  } catch (const std::bad_alloc&) {
    return false;
  }
}

/// False where the list has not as many nodes.
bool SpaceOrder::make(Cell* mesh_beg, std::size_t nb_nodes, const Domain& domain,
                      const TraversalHistory& history) {
  std::vector<Cell*> listed(nb_nodes);
  std::vector<Placed> placed(nb_nodes);
  const Curve curve(domain);
  std::size_t n = 0;
  Walk walk = Walk::to_share(history);
  for (Cell& c : walk(mesh_beg)) {
    if (n == nb_nodes) return false;
    placed[n] = {curve.place_of(c), static_cast<std::uint32_t>(n)};
    listed[n++] = &c;
  }
  if (n != nb_nodes) return false;
  sort(placed);
  std::vector<Cell*> ordered(nb_nodes);
  for (std::size_t i = 0; i < nb_nodes; ++i) ordered[i] = listed[placed[i].number];
  nodes_.swap(ordered);
  return true;
}

void SpaceOrder::forget() {
  std::vector<Cell*>().swap(nodes_);
  has_passed_ = false;
}

}  // namespace velmar_2d::detail
