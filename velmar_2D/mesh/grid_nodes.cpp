// The nodes of the grid by their place.
#include <cmath>
#include <new>

#include "velmar_2D/mesh/state.hpp"

namespace velmar_2d::detail {

namespace {

/// Number of the nearest line of the grid.
std::size_t line_of(double offset, double dist_0, std::size_t nb_lines) {
  const double line =
      std::clamp(std::round(offset / dist_0), 0.0, static_cast<double>(nb_lines - 1));
  return static_cast<std::size_t>(line);
}

std::size_t number_of_lines(double length, double dist_0) {
  return static_cast<std::size_t>(std::llround(length / dist_0)) + 1;
}

const Cell* any_node(const State& state) {
  for (const Handle& first : state.level_beg) {
    if (first.next != nullptr) return first.next;
  }
  return nullptr;
}

}  // namespace

void GridNodes::make(const State& state) {
  const Domain& domain = state.domain;
  columns_ = number_of_lines(domain.x_max - domain.x_min, domain.dist_0);
  rows_ = number_of_lines(domain.y_max - domain.y_min, domain.dist_0);
  try {
    nodes_.assign(columns_ * rows_, nullptr);
  } catch (const std::bad_alloc&) {
    allocation_failed(state.handlers, columns_ * rows_ * sizeof(void*));
  }
  const Cell* last = state.level_end[0].next;
  for (const Cell* c = state.level_beg[0].next; c != nullptr; c = c == last ? nullptr : c->next) {
    const std::size_t column = line_of(c->x - domain.x_min, domain.dist_0, columns_);
    const std::size_t row = line_of(c->y - domain.y_min, domain.dist_0, rows_);
    nodes_[row * columns_ + column] = c;
  }
  // Callers can leave holes.
  const Cell* before = nullptr;
  for (const Cell*& c : nodes_) {
    if (c == nullptr) c = before;
    before = c;
  }
}

const Cell* GridNodes::nearest(const State& state, Point p) {
  if (!made_.load(std::memory_order_acquire)) {
    const std::lock_guard<std::mutex> alone(making_);
    if (!made_.load(std::memory_order_relaxed)) {
      make(state);
      made_.store(true, std::memory_order_release);
    }
  }
  const Domain& domain = state.domain;
  const std::size_t column = line_of(p.x - domain.x_min, domain.dist_0, columns_);
  const std::size_t row = line_of(p.y - domain.y_min, domain.dist_0, rows_);
  const Cell* c = nodes_[row * columns_ + column];
  return c != nullptr ? c : any_node(state);
}

}  // namespace velmar_2d::detail
