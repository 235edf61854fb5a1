// Grading the wanted sizes of a mesh: none exceeds what a parent or a child wants, and `slope`
// times the way to it.
//
// The ways lead over parents alone, which stay what they are whatever comes between: a node that
// comes can only lower what others want, one that goes only raise it. So there is one set of least
// sizes and one least mesh for it, in whatever order they are found.
#include <limits>
#include <new>

#include "velmar_2D/resolve/resolve.hpp"

namespace velmar_2d::detail {

namespace {

constexpr double no_size = std::numeric_limits<double>::infinity();

}  // namespace

GradedSizes::GradedSizes(const State& state, double slope)
    : GradedSizes(state, slope, Lattice(state, state.level_max)) {}

GradedSizes::GradedSizes(const State& state, double slope, Lattice lattice)
    : progress_(state.progress), lattice_(std::move(lattice)) {
  nodes_.reserve(lattice_.entries().capacity());
  for (std::size_t l = 0; l < rise_.size(); ++l) {
    const double spacing = state.domain.dist_0 / exact_power_of_2(static_cast<int>(l / 2));
    rise_[l] = slope * (l % 2 == 0 ? spacing : spacing / 1.4142135623730951);
  }
}

void GradedSizes::add(Cell& c, double size) {
  LatticePoint at{};
  lattice_.find_place(c, at);
  lattice_.add({at, &c, c.ipos});
  Node node;
  node.has_own = size >= 0.0;
  node.own = no_size;
  if (node.has_own) node.own = size;
  node.graded = node.own;
  node.ipos = c.ipos;
  std::size_t n = 0;
  for (int d = c.ipos % 2; d < nb_directions; d += 2) {
    const LatticePoint parent = lattice_.neighbour(at, d, c.ipos);
    if (lattice_.contains(parent)) node.parents[n++] = lattice_.find(parent);
  }
  progress_.make_room(nodes_);
  nodes_.push_back(node);
  progress_.step();
}

void GradedSizes::add_place(LatticePoint at) {
  lattice_.add({at, nullptr, 0});
  Node node;
  node.own = node.graded = no_size;
  progress_.make_room(nodes_);
  nodes_.push_back(node);
}

void GradedSizes::remove(const Cell& c) {
  LatticePoint at{};
  lattice_.find_place(c, at);
  const std::int32_t number = lattice_.find(at);
  lattice_.entries()[static_cast<std::size_t>(number)].cell = nullptr;
  Node& node = nodes_[static_cast<std::size_t>(number)];
  node = {};
  node.own = node.graded = no_size;
}

void GradedSizes::forget_grading() {
  for (Node& node : nodes_) node.graded = node.own;
}

/// Whether that lowers a size.
bool GradedSizes::relax(Node& node) {
  progress_.step();
  const double rise = rise_[static_cast<std::size_t>(node.ipos)];
  bool lowered = false;
  for (const std::int32_t number : node.parents) {
    if (number < 0) continue;
    Node& parent = nodes_[static_cast<std::size_t>(number)];
    if (node.graded > parent.graded + rise) {
      node.graded = parent.graded + rise;
      lowered = true;
    } else if (parent.graded > node.graded + rise) {
      parent.graded = node.graded + rise;
      lowered = true;
    }
  }
  return lowered;
}

// The shortest ways lead from a fine node up to coarse ones and down to others: as the nodes lie,
// mostly one sweep backwards and one forwards.
void GradedSizes::grade() {
  bool lowered = true;
  while (lowered) {
    lowered = false;
    for (std::size_t i = nodes_.size(); i-- > 0;) lowered = relax(nodes_[i]) || lowered;
    for (Node& node : nodes_) lowered = relax(node) || lowered;
  }
}

}  // namespace velmar_2d::detail
