#include "python/core/bulk_values.hpp"

#include <bit>
#include <cmath>

#include "python/core/prefetch.hpp"

namespace velmar_2d::python {

namespace {

constexpr std::size_t fewest_slots = 64;

std::uint64_t mixed(std::uint64_t bits) {
  bits *= 0x9e3779b97f4a7c15U;
  return bits ^ (bits >> 32);
}

/// 0 for what is beyond all reason or no number.
std::uint64_t whole(double units) {
  return std::abs(units) < 1e18 ? static_cast<std::uint64_t>(static_cast<std::int64_t>(units)) : 0;
}

}  // namespace

void BulkValues::clear(double unit) {
  per_unit_ = 1.0 / unit;
  noted_.clear();
  x_.clear();
  y_.clear();
  values_.clear();
  slots_.clear();
}

void BulkValues::expect(double x, double y) {
  noted_.push_back(x);
  noted_.push_back(y);
}

// Places come in the order of a walk, mostly near one another. Those of a tile of 8 by 8 units
// share a few lines of memory.
std::size_t BulkValues::slot_of(double x, double y) const {
  const std::uint64_t column = whole(x * per_unit_), row = whole(y * per_unit_);
  const std::uint64_t tile = mixed(mixed(column / 8) + row / 8);
  return (64 * tile + 8 * (row % 8) + column % 8) & (slots_.size() - 1);
}

/// At most half of the slots are taken.
void BulkValues::resize_slots(std::size_t places) {
  slots_.assign(std::max(fewest_slots, std::bit_ceil(2 * places)), 0);
  const std::size_t mask = slots_.size() - 1;
  for (std::size_t i = 0; i < x_.size(); ++i) {
    std::size_t slot = slot_of(x_[i], y_[i]);
    while (slots_[slot] != 0) slot = (slot + 1) & mask;
    slots_[slot] = static_cast<std::uint32_t>(i + 1);
  }
}

std::size_t BulkValues::index_of(double x, double y) {
  if (2 * (x_.size() + 1) > slots_.size()) resize_slots(2 * (x_.size() + 1));
  const std::size_t mask = slots_.size() - 1;
  std::size_t slot = slot_of(x, y);
  for (; slots_[slot] != 0; slot = (slot + 1) & mask) {
    const std::size_t i = slots_[slot] - 1;
    if (x_[i] == x && y_[i] == y) return i;
  }
  x_.push_back(x);
  y_.push_back(y);
  slots_[slot] = static_cast<std::uint32_t>(x_.size());
  return x_.size() - 1;
}

void BulkValues::evaluate() {
  if (!noted_.empty()) {
    resize_slots(x_.size() + noted_.size() / 2 + 1);
    constexpr std::size_t numbers_ahead = 2 * 12;
    for (std::size_t i = 0; i < noted_.size(); i += 2) {
      if (const std::size_t ahead = i + numbers_ahead; ahead < noted_.size()) {
        prefetch(&slots_[slot_of(noted_[ahead], noted_[ahead + 1])]);
      }
      index_of(noted_[i], noted_[i + 1]);
    }
    noted_.clear();
  }
  const std::size_t known = values_.size();
  if (known == x_.size()) return;
  values_.resize(x_.size());
  try {
    function_(std::span(x_).subspan(known), std::span(y_).subspan(known),
              std::span(values_).subspan(known));
  } catch (...) {
    clear(1.0 / per_unit_);  // places without values must not stay
    throw;
  }
}

double BulkValues::at(double x, double y) {
  const std::size_t i = index_of(x, y);
  evaluate();
  return values_[i];
}

}  // namespace velmar_2d::python
