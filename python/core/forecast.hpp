// Where an update is about to insert nodes.
#pragma once

#include <cmath>
#include <limits>
#include <span>
#include <utility>
#include <vector>

#include "python/core/asking.hpp"
#include "python/core/prefetch.hpp"

namespace velmar_2d::python {

/// Foresees insertions around the nodes of one stretch, for the vectorised functions that are asked
/// about new nodes.
class Forecast {
 public:
  /// @param whole  where the sides are
  Forecast(const Mesh& mesh, const Rectangle& whole, BulkValues* init_data,
           std::span<BulkValues> kinds)
      : mesh_(mesh),
        limit_(mesh.limit()),
        dist_0_(mesh.dist_0()),
        domain_(whole),
        init_data_(init_data),
        kinds_(kinds) {
    if (!has_readers()) return;
    for (std::int32_t level = 0; level < limit_; ++level) {
      spacings_.push_back(dist_0_ * std::exp2(-0.5 * level));
    }
  }

  bool has_readers() const { return init_data_ != nullptr || !kinds_.empty(); }

  void look_ahead(Nodes nodes, std::span<const double> sizes) {
    forget(nodes.front()->ipos + 2);  // mostly nodes of the next two levels come
    find_concerned(nodes, sizes);
    for (std::size_t i = 0; i < concerned_.size(); ++i) {
      if (const std::size_t ahead = i + 2 * nodes_ahead; ahead < concerned_.size()) {
        prefetch(&concerned_[ahead].node->n);
      }
      if (const std::size_t ahead = i + nodes_ahead; ahead < concerned_.size()) {
        request_neighbours(*concerned_[ahead].node);
      }
      look_around(*concerned_[i].node, concerned_[i].size);
    }
    evaluate();
  }

  /// The same for resolve(), which gives all nodes of a batch all their rings at once.
  void look_ahead_for_rings(Nodes nodes, std::span<const double> sizes) {
    std::int32_t highest = 0;
    concerned_.clear();
    for (std::size_t i = 0; i < nodes.size(); ++i) {
      if (i + 2 * nodes_ahead < nodes.size()) prefetch(nodes[i + 2 * nodes_ahead]);
      const std::int32_t level = wanted_level(*nodes[i], sizes[i]);
      if (level <= nodes[i]->level) continue;
      concerned_.push_back({nodes[i], sizes[i]});
      highest = std::max(highest, level);
    }
    forget(highest);
    for (const auto& [node, size] : concerned_) expect_rings(*node, wanted_level(*node, size));
    evaluate();
  }

  /// Before places are asked for that nothing foresees: holes that other updates have left.
  void expect_holes() {
    std::int32_t highest = limit_;
    while (highest > 0 && mesh_.nodes(highest).empty()) --highest;
    forget(highest);
  }

 private:
  struct Concerned {
    const Cell* node;
    double size;
  };

  /// All that was foreseen; next come places that mostly belong to levels up to this one.
  void forget(std::int32_t level) {
    const double unit = 0.5 * dist_0_ * std::exp2(-0.5 * level);
    if (init_data_ != nullptr) init_data_->clear(unit);
    for (BulkValues& side : kinds_) side.clear(unit);
  }
  void evaluate() {
    if (init_data_ != nullptr) init_data_->evaluate();
    for (BulkValues& side : kinds_) side.evaluate();
  }

  std::int32_t wanted_level(const Cell& c, double size) const {
    constexpr double enough = 1.0 + 1e-9;
    std::int32_t level = c.level;
    if (!(size >= 0.0)) return level;
    while (too_coarse(level, size * enough)) ++level;
    return level;
  }

  /// Columns and rows that come are half-way between those of the node and of linked ones; where
  /// coordinates are rounded a few differ in their last bit. Those and far corners that are missing
  /// are left to be asked for one by one.
  void expect_rings(const Cell& c, std::int32_t wanted) {
    constexpr std::array<std::size_t, 8> column_of = {1, 2, 2, 2, 1, 0, 0, 0},
                                         row_of = {2, 2, 1, 0, 0, 0, 1, 2};
    const double nowhere = std::numeric_limits<double>::quiet_NaN();
    std::array<double, 3> columns = {nowhere, c.x, nowhere}, rows = {nowhere, c.y, nowhere};
    std::array<double, 8> linked_at{};
    const auto keep_farther = [](double& kept, double other, double from) {
      if (!(std::abs(kept - from) >= std::abs(other - from))) kept = other;
    };
    for (std::size_t d = 0; d < links.size(); ++d) {
      const Cell* there = (c.*links[d]).cell();
      linked_at[d] = dist_0_ * 4.0;
      if (there == nullptr) continue;
      linked_at[d] = std::max(std::abs(there->x - c.x), std::abs(there->y - c.y));
      keep_farther(columns[column_of[d]], there->x, c.x);
      keep_farther(rows[row_of[d]], there->y, c.y);
    }
    const auto approach = [](double& there, double here, double distance) {
      for (double before = here; std::abs(there - here) > 1.5 * distance && there != before;) {
        before = std::exchange(there, (there + here) / 2.0);
      }
    };
    for (std::int32_t level = c.level + 1; level <= wanted; ++level) {
      const double distance = std::ldexp(dist_0_, -((level + 1) / 2));
      for (const std::size_t side : {0U, 2U}) {
        approach(columns[side], c.x, distance);
        approach(rows[side], c.y, distance);
      }
      for (auto d = static_cast<std::size_t>(level % 2); d < links.size(); d += 2) {
        const double x = columns[column_of[d]], y = rows[row_of[d]];
        if (std::isnan(x + y) || linked_at[d] < 1.5 * distance) continue;
        expect(x, y);
      }
    }
  }

  /// Those around which something may be inserted, told by their own first line of memory.
  void find_concerned(Nodes nodes, std::span<const double> sizes) {
    concerned_.clear();
    for (std::size_t i = 0; i < nodes.size(); ++i) {
      if (i + 2 * nodes_ahead < nodes.size()) prefetch(nodes[i + 2 * nodes_ahead]);
      const Cell& c = *nodes[i];
      if (c.level >= limit_) continue;
      if (too_coarse(c, sizes[i]) || c.reserve != 4 || may_complete_half_figure(c)) {
        concerned_.push_back({&c, sizes[i]});
      }
    }
  }

  /// Prefetches what look_around() will read.
  static void request_neighbours(const Cell& c) {
    for (const auto link : links) {
      if (const Cell* there = (c.*link).cell()) {
        prefetch(there);
        prefetch(&there->n);
      }
    }
  }
  static constexpr std::size_t nodes_ahead = 6;

  bool too_coarse(std::int32_t level, double size) const {
    return level < limit_ && size < spacings_[static_cast<std::size_t>(level)];
  }
  bool too_coarse(const Cell& c, double size) const { return too_coarse(c.level, size); }

  void look_around(const Cell& node, double size) {
    auto& c = const_cast<Cell&>(node);  // nothing here changes it
    const bool refined = too_coarse(c, size);
    for (const Proposals proposals = mesh_.build_vertex(c); const Vertex& v : proposals) {
      if (v.level > limit_ || !(refined || completes_figure(v))) continue;
      expect(v.x, v.y);
    }
    if (!refined) return;
    // What is proposed once those are there: midpoints of links to nodes that are refined too.
    for (const auto link : links) {
      const Cell* there = (c.*link).cell();
      if (there == nullptr || !too_coarse(*there, size)) continue;
      expect((c.x + there->x) / 2.0, (c.y + there->y) / 2.0);
    }
  }

  /// Half figures lie at sides.
  bool may_complete_half_figure(const Cell& c) const {
    return c.x - domain_.x_min <= dist_0_ || c.y - domain_.y_min <= dist_0_ ||
           domain_.x_max - c.x <= dist_0_ || domain_.y_max - c.y <= dist_0_;
  }

  /// Figures that are completed also around nodes that are fine enough.
  static bool completes_figure(const Vertex& v) {
    return v.p4 == nullptr ||
           (v.p1->reserve != 4 && v.p2->reserve != 4 && v.p3->reserve != 4 && v.p4->reserve != 4);
  }

  void expect(double x, double y) {
    if (init_data_ != nullptr) init_data_->expect(x, y);
    if (kinds_.empty()) return;
    // One place more than is asked for does no harm, so rounding may be met with plenty of room.
    const auto near = [this](double a, double b) { return std::abs(a - b) < 1e-6 * dist_0_; };
    const std::array<bool, 4> on_side = {near(y, domain_.y_max), near(x, domain_.x_max),
                                         near(y, domain_.y_min), near(x, domain_.x_min)};
    for (std::size_t side = 0; side < 4; ++side) {
      if (on_side[side]) kinds_[side].expect(x, y);
    }
  }

  const Mesh& mesh_;
  std::int32_t limit_;
  double dist_0_;
  Rectangle domain_;
  BulkValues* init_data_;
  std::span<BulkValues> kinds_;   // one a side, or none
  std::vector<double> spacings_;  // of the levels
  std::vector<Concerned> concerned_;
};

}  // namespace velmar_2d::python
