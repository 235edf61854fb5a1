// Which positions of the lattice hold a node: a table with open addressing.
#include <bit>
#include <cmath>

#include "velmar_2D/resolve/resolve.hpp"

namespace velmar_2d::detail {

Lattice::Lattice(const State& state, std::int32_t highest_ipos)
    : domain_(state.domain),
      progress_(state.progress),
      halvings_((std::min(highest_ipos, highest_wanted_level) + 3) / 2),
      last_{std::llround((domain_.x_max - domain_.x_min) / domain_.dist_0) << halvings_,
            std::llround((domain_.y_max - domain_.y_min) / domain_.dist_0) << halvings_} {
  const auto nb_nodes = static_cast<std::size_t>(state.nb_nodes);
  entries_.reserve(nb_nodes + nb_nodes / 16);
  progress_.resize(slots_, std::bit_ceil(2 * nb_nodes + 2), -1);
}

LatticePoint Lattice::neighbour(LatticePoint p, int direction, std::int32_t level) const {
  const auto d = static_cast<std::size_t>(direction & 7);
  const std::int64_t step = std::int64_t{1} << (halvings_ - (level + 1) / 2);
  return {p.x + static_cast<std::int64_t>(away_x[d]) * step,
          p.y + static_cast<std::int64_t>(away_y[d]) * step};
}

bool Lattice::contains(LatticePoint p) const {
  return p.x >= 0 && p.y >= 0 && p.x <= last_.x && p.y <= last_.y;
}

bool Lattice::is_on_side(LatticePoint p, int straight_direction) const {
  const auto d = static_cast<std::size_t>(straight_direction);
  return !contains(
      {p.x + static_cast<std::int64_t>(away_x[d]), p.y + static_cast<std::int64_t>(away_y[d])});
}

std::int32_t Lattice::halvings_of(std::int64_t offset) const {
  const auto bits = static_cast<std::uint64_t>(offset | grid_step());
  return halvings_ - std::countr_zero(bits);
}

std::int32_t Lattice::ipos(LatticePoint p) const {
  const std::int32_t x = halvings_of(p.x), y = halvings_of(p.y);
  return x == y ? std::max(2 * x - 1, 0) : 2 * std::max(x, y);
}

// Told at the node's own level: far from the origin the coordinates are no good at the finest.
bool Lattice::find_place(const Cell& c, LatticePoint& p) const {
  const std::int32_t own_halvings = (c.ipos + 1) / 2;
  if (own_halvings > halvings_) return false;
  const auto place = [&](double offset, std::int64_t& whole) {
    constexpr double off_the_lattice = 0.25, largest = 4e18;
    const double exact = std::ldexp(offset, own_halvings);
    if (!(std::abs(std::ldexp(offset, halvings_)) < largest)) return false;
    const std::int64_t nearest = std::llround(exact);
    whole = nearest * (std::int64_t{1} << (halvings_ - own_halvings));
    return std::abs(exact - static_cast<double>(nearest)) < off_the_lattice;
  };
  return place((c.x - domain_.x_min) / domain_.dist_0, p.x) &&
         place((c.y - domain_.y_min) / domain_.dist_0, p.y) && contains(p) && ipos(p) == c.ipos;
}

std::int32_t Lattice::add(const Entry& entry) {
  const std::size_t slot = slot_of(entry.at);
  if (slots_[slot] >= 0) return -1;
  const auto number = static_cast<std::int32_t>(entries_.size());
  progress_.make_room(entries_);
  entries_.push_back(entry);
  slots_[slot] = number;
  if (2 * entries_.size() > slots_.size()) double_slots();
  return number;
}

void Lattice::double_slots() {
  const std::size_t size = 2 * slots_.size();
  slots_.clear();
  progress_.resize(slots_, size, -1);
  constexpr std::size_t between_looks = 1024;
  for (std::size_t i = 0; i < entries_.size(); ++i) {
    slots_[slot_of(entries_[i].at)] = static_cast<std::int32_t>(i);
    if (i % between_looks == 0) progress_.look_aside();
  }
}

/// Where the entry of a position is, or would be.
std::size_t Lattice::slot_of(LatticePoint p) const {
  std::uint64_t hash = static_cast<std::uint64_t>(p.x) * 0x9e3779b97f4a7c15U;
  hash = (hash ^ (hash >> 32) ^ static_cast<std::uint64_t>(p.y)) * 0xbf58476d1ce4e5b9U;
  std::size_t slot = static_cast<std::size_t>(hash ^ (hash >> 29)) & (slots_.size() - 1);
  while (slots_[slot] >= 0 && entries_[static_cast<std::size_t>(slots_[slot])].at != p) {
    slot = (slot + 1) & (slots_.size() - 1);
  }
  return slot;
}

}  // namespace velmar_2d::detail
