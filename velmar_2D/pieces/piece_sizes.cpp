// Wanted sizes that are graded over all pieces.
//
// A size is the least sum of a size that some node asks for and the rises on a way from there,
// which leads from node to parent or child. Sums are rounded, but a larger number never becomes the
// smaller one by that, so the least does not depend on who finds it. A way that leaves the box does
// so between a node and its parent: whoever owns the node knows the place of the parent, tells its
// owner of it, and both tell each other sizes that are lower than the other one knows.
#include <limits>
#include <numeric>

#include "velmar_2D/pieces/pieces.hpp"

namespace velmar_2d::detail {

namespace {

constexpr double not_told = std::numeric_limits<double>::infinity();

}  // namespace

PieceSizes::Shared& PieceSizes::SharedNodes::at(std::int32_t number, bool is_new) {
  const auto [entry, is_added] = where.try_emplace(number, nodes.size());
  if (is_added) nodes.push_back({number, not_told, is_new});
  return nodes[entry->second];
}

void PieceSizes::add(Cell& c, double size) {
  const Lattice& lattice = graded_.lattice();
  LatticePoint at{};
  lattice.find_place(c, at);
  for (int d = c.ipos % 2; d < nb_directions; d += 2) {
    const LatticePoint parent = lattice.neighbour(at, d, c.ipos);
    if (!lattice.contains(parent) || box_.contains(parent) || lattice.find(parent) >= 0) continue;
    graded_.add_place(parent);
    list_with_parents(graded_.size() - 1);
    others_.at(static_cast<std::int32_t>(graded_.size() - 1), true);
  }
  graded_.add(c, size);
  list_with_parents(graded_.size() - 1);
  if (!(size >= 0.0)) without_own_.push_back(static_cast<std::int32_t>(graded_.size() - 1));
}

void PieceSizes::list_with_parents(std::size_t i) {
  const GradedSizes::Parents& parents = graded_.parents_of(i);
  first_child_.push_back(-1);
  for (std::size_t k = 0; k < parents.size(); ++k) {
    next_child_.push_back(-1);
    if (parents[k] < 0) continue;
    std::int32_t& first = first_child_[static_cast<std::size_t>(parents[k])];
    next_child_.back() = first;
    first = static_cast<std::int32_t>(parents.size() * i + k);
  }
  is_lowered_.push_back(0);
  is_changed_.push_back(0);
}

void PieceSizes::note_lower(std::int32_t i) {
  const auto number = static_cast<std::size_t>(i);
  if (is_lowered_[number] == 0) lowered_.push_back(i);
  if (is_changed_[number] == 0) changed_.push_back(i);
  is_lowered_[number] = is_changed_[number] = 1;
}

/// Of parents and children. What becomes of those that have gone does not matter.
void PieceSizes::lower_around(std::int32_t i) {
  const auto number = static_cast<std::size_t>(i);
  const double size = graded_.size_of(number);
  for (const std::int32_t parent : graded_.parents_of(number)) {
    if (parent < 0) continue;
    if (graded_.lower(static_cast<std::size_t>(parent), size + graded_.rise_of(number))) {
      note_lower(parent);
    }
  }
  for (std::int32_t edge = first_child_[number]; edge >= 0;) {
    const auto child = static_cast<std::size_t>(edge / 4);
    if (graded_.lower(child, size + graded_.rise_of(child))) {
      note_lower(static_cast<std::int32_t>(child));
    }
    edge = next_child_[static_cast<std::size_t>(edge)];
  }
}

// Many sizes are graded faster by sweeps over all of them, a few by what follows from each.
void PieceSizes::grade() {
  constexpr std::size_t few = 16;
  const std::size_t n = graded_.size();
  const std::size_t first = std::exchange(nb_graded_, n);
  if (std::exchange(forgot_, false) || n - first > n / few) {
    graded_.grade();
    changed_.resize(n);
    std::iota(changed_.begin(), changed_.end(), 0);
    std::fill(is_changed_.begin(), is_changed_.end(), char{1});
    std::fill(is_lowered_.begin(), is_lowered_.end(), char{0});
    lowered_.clear();
    return;
  }
  for (std::size_t i = first; i < n; ++i) {
    for (const std::int32_t parent : graded_.parents_of(i)) {
      if (parent < 0) continue;
      graded_.lower(i, graded_.size_of(static_cast<std::size_t>(parent)) + graded_.rise_of(i));
    }
    note_lower(static_cast<std::int32_t>(i));
  }
  std::size_t next = 0;  // which makes more
  while (next < lowered_.size()) {
    const std::int32_t i = lowered_[next++];
    is_lowered_[static_cast<std::size_t>(i)] = 0;
    lower_around(i);
  }
  lowered_.clear();
}

void PieceSizes::forget_grading() {
  graded_.forget_grading();
  forgot_ = true;
  for (Shared& shared : others_.nodes) shared.known = not_told;
  for (SharedNodes& of_piece : own_) {
    for (Shared& shared : of_piece.nodes) shared.known = not_told;
  }
}

bool PieceSizes::is_news(const Shared& shared) const {
  return shared.is_new || graded_.size_of(static_cast<std::size_t>(shared.number)) < shared.known;
}

bool PieceSizes::has_news() const {
  const auto has = [this](const SharedNodes& shared) {
    return std::any_of(shared.nodes.begin(), shared.nodes.end(),
                       [this](const Shared& node) { return is_news(node); });
  };
  return has(others_) || std::any_of(own_.begin(), own_.end(), has);
}

std::vector<PlacedSize> PieceSizes::take_news(SharedNodes& shared) {
  std::vector<PlacedSize> news;
  for (Shared& node : shared.nodes) {
    if (!is_news(node)) continue;
    const auto number = static_cast<std::size_t>(node.number);
    node.known = graded_.size_of(number);
    node.is_new = false;
    news.push_back({graded_.lattice().entries()[number].at, node.known});
  }
  return news;
}

std::vector<PlacedSize> PieceSizes::take_those_of_others() { return take_news(others_); }
std::vector<PlacedSize> PieceSizes::take_own_for(std::size_t piece) {
  return piece < own_.size() ? take_news(own_[piece]) : std::vector<PlacedSize>{};
}

bool PieceSizes::take_over(std::size_t piece, std::span<const PlacedSize> told) {
  if (own_.size() <= piece) own_.resize(piece + 1);
  for (const PlacedSize& of : told) {
    const std::int32_t number = graded_.lattice().find(of.at);
    if (number < 0) return false;
    Shared& shared = (box_.contains(of.at) ? own_[piece] : others_).at(number, false);
    shared.known = std::min(shared.known, of.size);
    if (graded_.lower(static_cast<std::size_t>(number), of.size)) note_lower(number);
  }
  return true;
}

std::vector<std::int32_t> PieceSizes::take_changed() {
  std::vector<std::int32_t> changed = std::exchange(changed_, {});
  for (const std::int32_t i : changed) is_changed_[static_cast<std::size_t>(i)] = 0;
  changed.insert(changed.end(), without_own_.begin(), without_own_.end());
  return changed;
}

}  // namespace velmar_2d::detail
