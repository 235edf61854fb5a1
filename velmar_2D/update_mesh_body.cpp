// The two passes of an adaptation.
#include <cmath>
#include <limits>
#include <new>

#include "velmar_2D/roll.hpp"
#include "velmar_2D/update_mesh_decl.hpp"

namespace velmar_2d::detail {

namespace {

/// A node is removed only where the wanted level lies further than this below its own. Refinement
/// has no such margin; the gap between the two keeps nodes from coming and going.
constexpr double coarsening_margin = 1.05;

/// The level that gives a spacing of dist_0 / ratio. A real number, compared and never rounded.
double level_of(double ratio) { return 2.0 * detail::log2(ratio); }

/// Ratios of spacings at which the two decisions change, by level. The logarithm is taken only
/// within a hair of them, where its rounding decides.
struct Thresholds {
  static constexpr std::size_t nb_levels = 64;
  static constexpr double hair = 1e-9;
  std::array<double, nb_levels> refine{}, coarsen{};

  Thresholds() {
    for (std::size_t l = 0; l < nb_levels; ++l) {
      const auto level = static_cast<double>(l);
      refine[l] = std::exp2(level / 2.0);
      coarsen[l] = std::exp2((level - coarsening_margin) / 2.0);
    }
  }
};
const Thresholds thresholds;

bool clearly_above(double ratio, double threshold) {
  return ratio > threshold * (1.0 + Thresholds::hair);
}
/// False for negative ratios too: their level is no number.
bool clearly_below(double ratio, double threshold) {
  return ratio < threshold * (1.0 - Thresholds::hair) && ratio >= 0.0;
}

/// Asks for the wanted spacing of each node as a walk comes to it.
class SizesOneByOne {
 public:
  explicit SizesOneByOne(const size_function& size_fun) : size_fun_(size_fun) {}

  void begin_update() {}
  void begin_walk(std::size_t /*stretch*/, Scout& /*scout*/) {}
  double at(const Cell& c) const {
    // Without values there are no derivatives, and no need to fetch them.
    if (c.data.empty()) return size_fun_(c.x, c.y, {}, 0.0, 0.0);
    return size_fun_(c.x, c.y, std::span(c.data.data(), c.data.size()), c.grad_data, c.grad2_data);
  }
  void node_removed() {}
  void end_update() {}

 private:
  const size_function& size_fun_;
};

/// Asks for the wanted spacings of a whole stretch before it is walked.
///
/// A walk meets just the nodes that are there when it begins: what refinement adds to its stretch
/// enters behind it, at the head, and coarsening removes no node but the one that it visits. Nor do
/// the values of a node change on the way. So the answers are those of SizesOneByOne.
class SizesInBatches {
 public:
  explicit SizesInBatches(const batch_size_function& size_fun) : size_fun_(size_fun) {}
  SizesInBatches(const SizesInBatches&) = delete;
  SizesInBatches& operator=(const SizesInBatches&) = delete;
  ~SizesInBatches() {
    if (roll.is_open()) roll.forget();  // an exception leaves the update
  }

  static void begin_update() { roll.open(); }
  void begin_walk(std::size_t stretch, Scout& scout) {
    nodes_ = roll.of_stretch(stretch);
    try {
      if (scout.goes_forwards()) {
        reversed_.assign(nodes_.rbegin(), nodes_.rend());
        nodes_ = reversed_;
      }
      sizes_.assign(nodes_.size(), std::numeric_limits<double>::quiet_NaN());
    } catch (const std::bad_alloc&) {
      allocation_failed(nodes_.size() * (sizeof(void*) + sizeof(double)));
    }
    scout.know(nodes_);
    next_ = 0;
    if (!nodes_.empty()) size_fun_(nodes_, sizes_);
  }
  /// Needs: the nodes of the walk in their order; some may be left out.
  double at(const Cell& c) {
    while (nodes_[next_] != &c) ++next_;
    return sizes_[next_++];
  }
  /// The node of the last size is no more. Needs: the walk goes backwards.
  void node_removed() { nodes_[next_ - 1] = nullptr; }
  static void end_update() { roll.close(); }

 private:
  const batch_size_function& size_fun_;
  std::span<const Cell*> nodes_;  ///< in the order of the walk
  std::vector<const Cell*> reversed_;
  std::vector<double> sizes_;
  std::size_t next_ = 0;
};

/// dist_0 divided by the wanted spacing.
template <typename Sizes>
double wanted_ratio(const Cell& c, Sizes& sizes) {
  ++update_statistics.visited;
  return dist_0 / sizes.at(c);
}

/// Whether the wanted level exceeds the node's.
template <typename Sizes>
bool too_coarse(const Cell& c, Sizes& sizes) {
  const double ratio = wanted_ratio(c, sizes);
  if (const auto l = static_cast<std::size_t>(c.level); l < Thresholds::nb_levels) {
    if (clearly_above(ratio, thresholds.refine[l])) return true;
    if (clearly_below(ratio, thresholds.refine[l])) return false;
  }
  return level_of(ratio) > c.level;
}

/// Whether the node's level exceeds the wanted one by more than the margin.
template <typename Sizes>
bool too_fine(const Cell& c, Sizes& sizes) {
  const double ratio = wanted_ratio(c, sizes);
  if (const auto l = static_cast<std::size_t>(c.level); l < Thresholds::nb_levels) {
    if (clearly_above(ratio, thresholds.coarsen[l])) return false;
    if (clearly_below(ratio, thresholds.coarsen[l])) return true;
  }
  return c.level > coarsening_margin + level_of(ratio);
}

/// Stretches upwards, each from its first node: nodes that a stretch gains from the ones below are
/// visited in the same pass.
template <typename Sizes>
void refine(Sizes& sizes) {
  Scout scout = Scout::forwards();
  const std::int32_t last_level = level_max;
  for (std::int32_t l = 0; l <= last_level; ++l) {
    Cell* c = level_beg[static_cast<std::size_t>(l)].next;
    sizes.begin_walk(static_cast<std::size_t>(l), scout);
    scout.begin_stretch(c);
    bool refining = true;
    for (; c != nullptr; c = c->next) {
      scout.advance(refining);
      if (refining && c->next != nullptr) request_far_corners(*c->next);
      refining = too_coarse(*c, sizes);
      if (refining) refine_cell(c, false);
      if (c->level < level_max) refine_cell(c, true);
    }
  }
}

/// Stretches downwards, each from its last node. The predecessor is taken before a node is removed.
template <typename Sizes>
void coarsen(Sizes& sizes) {
  Scout scout = Scout::backwards();
  trail.begin_recording();
  for (std::int32_t l = level_max; l >= 1; --l) {
    Cell* c = level_end[static_cast<std::size_t>(l)].next;
    sizes.begin_walk(static_cast<std::size_t>(l), scout);
    scout.begin_stretch(c);
    bool removing = false;
    while (c != nullptr) {
      scout.advance(removing);
      Cell* tmp = c;
      c = c->prev;
      removing = tmp->level != 0 && too_fine(*tmp, sizes);
      if (removing) {
        if (tmp->level % 2 != 1) {
          remove_node_even_level(tmp);
        } else {
          remove_node_odd_level(tmp);
        }
      }
      if (tmp != nullptr) {
        trail.record(tmp);
      } else {
        sizes.node_removed();
      }
    }
  }
  trail.end_recording();
}

/// Every node that came or went is one step of mesh_revision: with the change of their number that
/// gives both counts, also where the update is left by an exception.
class CountAtEnd {
 public:
  CountAtEnd() = default;
  CountAtEnd(const CountAtEnd&) = delete;
  CountAtEnd& operator=(const CountAtEnd&) = delete;
  ~CountAtEnd() {
    const auto changes = static_cast<std::int64_t>(mesh_revision - revision_before_);
    const std::int64_t growth = std::int64_t{nb_nodes} - nb_nodes_before_;
    update_statistics.inserted = (changes + growth) / 2;
    update_statistics.removed = (changes - growth) / 2;
  }

 private:
  std::uint64_t revision_before_ = mesh_revision;
  std::int32_t nb_nodes_before_ = nb_nodes;
};

template <typename Sizes>
void adapt(Sizes sizes) {
  const CountAtEnd count_at_end;
  const JoinAtEnd join_at_end;
  split_sublists();
  sizes.begin_update();
  refine(sizes);
  coarsen(sizes);
  sizes.end_update();
}

}  // namespace

void update_mesh_body(const size_function& size_fun) { adapt(SizesOneByOne(size_fun)); }
void update_mesh_body(const batch_size_function& size_fun) { adapt(SizesInBatches(size_fun)); }

}  // namespace velmar_2d::detail
