#include "python/core/bulk_values.hpp"

#include <bit>

namespace velmar_2d::python {

namespace {

constexpr std::size_t fewest_slots = 64;

std::size_t hash_of(double x, double y) {
  // Adding 0.0 makes the two zeros one.
  std::uint64_t bits = std::bit_cast<std::uint64_t>(x + 0.0) * 0x9e3779b97f4a7c15U;
  bits ^= std::rotl(std::bit_cast<std::uint64_t>(y + 0.0) * 0xbf58476d1ce4e5b9U, 32);
  bits ^= bits >> 29;
  bits *= 0x94d049bb133111ebU;
  return static_cast<std::size_t>(bits ^ (bits >> 32));
}

}  // namespace

void BulkValues::clear() {
  x_.clear();
  y_.clear();
  values_.clear();
  slots_.assign(fewest_slots, 0);
}

std::size_t BulkValues::index_of(double x, double y) {
  if (2 * (x_.size() + 1) > slots_.size()) grow();
  const std::size_t mask = slots_.size() - 1;
  std::size_t slot = hash_of(x, y) & mask;
  for (; slots_[slot] != 0; slot = (slot + 1) & mask) {
    const std::size_t i = slots_[slot] - 1;
    if (x_[i] == x && y_[i] == y) return i;
  }
  x_.push_back(x);
  y_.push_back(y);
  slots_[slot] = static_cast<std::uint32_t>(x_.size());
  return x_.size() - 1;
}

void BulkValues::grow() {
  slots_.assign(std::max(fewest_slots, 2 * slots_.size()), 0);
  const std::size_t mask = slots_.size() - 1;
  for (std::size_t i = 0; i < x_.size(); ++i) {
    std::size_t slot = hash_of(x_[i], y_[i]) & mask;
    while (slots_[slot] != 0) slot = (slot + 1) & mask;
    slots_[slot] = static_cast<std::uint32_t>(i + 1);
  }
}

void BulkValues::expect(double x, double y) { index_of(x, y); }

void BulkValues::evaluate() {
  const std::size_t known = values_.size();
  if (known == x_.size()) return;
  std::vector<double> fresh(x_.size() - known);
  function_(std::span(x_).subspan(known), std::span(y_).subspan(known), fresh);
  values_.insert(values_.end(), fresh.begin(), fresh.end());
}

double BulkValues::at(double x, double y) {
  const std::size_t i = index_of(x, y);
  evaluate();
  return values_[i];
}

}  // namespace velmar_2d::python
