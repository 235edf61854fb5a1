// What data values are handed on where nodes come and go, so that nothing is lost.
//
// A control cell holds area times value. A new node N cuts a part off the cell of each parent P_i:
//
//      P1 -------- P2       With lost_i the area that P_i loses, and the values v_i of the parents,
//       |  \    /  |        which keep theirs,
//       |    N     |
//       |  /    \  |           v_N = sum lost_i v_i / sum lost_i.
//      P4 -------- P3
//
// When N goes, P_i gains back gained_i, and for each i what falls to it is taken to hold
//
//      v_N + phi (v_i - m),        m = sum gained_i v_i / sum gained_i,
//
// which sums to what N held, whatever phi is. With phi = 1 the values of all neighbours change by
// the same small amount, a share of v_N - m: not at all for a linear field, nor where N has just
// come. Where that would lead out of the range of the values around, phi is as much smaller as need
// be; with phi = 0 each new value is a mean of two old ones.
#include <cmath>

#include "velmar_2D/adapt/update_mesh_decl.hpp"
#include "velmar_2D/cells/cells.hpp"

namespace velmar_2d::detail {

double control_area(const State& state, Cell& c) {
  const double cached = load_shared(c.area);
  if (is_known_area(cached)) return cached;
  const NodeShape look = look_at(state.domain, c);
  if (look.shape == nullptr) return area_of(polygon_of(state.domain, c));
  const double area =
      look.shape->area * state.domain.dist_0 * state.domain.dist_0 * exact_power_of_2(-c.level);
  store_shared(c.area, area);
  return area;
}

void take_from_cells(const State& state, std::span<Cell* const> parents,
                     const std::array<double, 4>& areas_before, Cell& c, std::size_t first) {
  std::array<double, 4> lost{};
  double sum = 0.0;
  for (std::size_t i = 0; i < parents.size(); ++i) {
    lost[i] = areas_before[i] - control_area(state, *parents[i]);
    sum += lost[i];
  }
  for (std::size_t value = first; value < c.data.size(); ++value) {
    double content = 0.0;
    for (std::size_t i = 0; i < parents.size(); ++i) {
      content += lost[i] * value_of(*parents[i], value);
    }
    c.data[value] = content / sum;
  }
}

Legacy::Legacy(const State& state, Cell& c, int first) : c_(c) {
  if (!conserves(state) && !state.hooks.removing && state.remapping == nullptr) return;
  for (int d = first; d < nb_directions; d += 2) {
    if (Cell* heir = link(c, d).cell()) heirs_[n_++] = heir;
  }
  if (state.hooks.removing) state.hooks.removing(c, std::span<Cell* const>(heirs_.data(), n_));
  if (state.remapping != nullptr) {
    state.remapping->will_change(c);
    for (std::size_t i = 0; i < n_; ++i) state.remapping->will_change(*heirs_[i]);
  }
  if (!conserves(state)) return;
  for (std::size_t i = 0; i < n_; ++i) areas_[i] = control_area(state, *heirs_[i]);
  area_ = control_area(state, c);
}

void Legacy::give_to_heirs(const State& state) const {
  std::array<double, 4> gained{}, area{};
  double sum = 0.0;
  for (std::size_t i = 0; i < n_; ++i) {
    area[i] = control_area(state, *heirs_[i]);
    gained[i] = area[i] - areas_[i];
    sum += gained[i];
  }
  for (std::size_t value = 0; value < c_.data.size(); ++value) {
    const double own = c_.data[value];
    double mean = 0.0, lowest = own, highest = own;
    for (std::size_t i = 0; i < n_; ++i) {
      const double v = value_of(*heirs_[i], value);
      mean += gained[i] / sum * v;
      lowest = std::min(lowest, v);
      highest = std::max(highest, v);
    }
    std::array<double, 4> least{}, rise{};  // with phi = 0, and by phi
    double phi = 1.0;
    for (std::size_t i = 0; i < n_; ++i) {
      const double v = value_of(*heirs_[i], value), share = gained[i] / area[i];
      least[i] = v + share * (own - v);
      rise[i] = share * (v - mean);
      if (least[i] + phi * rise[i] > highest) phi = std::max(0.0, (highest - least[i]) / rise[i]);
      if (least[i] + phi * rise[i] < lowest) phi = std::max(0.0, (lowest - least[i]) / rise[i]);
    }
    for (std::size_t i = 0; i < n_; ++i) {
      if (value >= heirs_[i]->data.size()) continue;
      heirs_[i]->data[value] = std::clamp(least[i] + phi * rise[i], lowest, highest);
    }
  }
}

}  // namespace velmar_2d::detail
