// The same adaptations by p4est: one tree, one process.
//
// A quadrant is refined while its side exceeds the wanted spacing at its centre, and four are
// joined where the quadrant that they make would not be refined. Refinement is recursive, the 2:1
// balance goes over faces and corners, and the neighbours are looked up over both. The value of a
// quadrant lies in the 8 bytes that p4est leaves to its user in each quadrant, which is cheaper
// than p4est's own pool of user data; children take over their parent's value, a parent takes the
// mean of its children's.
#pragma once

#include <p4est_extended.h>
#include <p4est_ghost.h>
#include <p4est_mesh.h>

#include <array>
#include <vector>

#include "field.hpp"

namespace velmar_2d::peers {

/// Seconds spent in each part of an adaptation.
struct Phases {
  double refine = 0.0, coarsen = 0.0, balance = 0.0, neighbours = 0.0;
  double sum() const { return refine + coarsen + balance + neighbours; }
};

class Quadtree {
 public:
  /// The first cells. With values, every cell carries one, given by set_values().
  explicit Quadtree(bool with_values);
  ~Quadtree();
  Quadtree(const Quadtree&) = delete;
  Quadtree& operator=(const Quadtree&) = delete;

  void refine(const Field& field);
  void coarsen(const Field& field);
  void balance();
  void find_neighbours();
  /// refine, balance and find_neighbours; with `coarsening`, coarsen after the refinement. Refining
  /// and balancing are repeated for the given number of rounds: balance cuts cells whose parts may
  /// want to be finer. The neighbours are left as they are where no cell has changed.
  Phases adapt(const Field& field, bool coarsening, int rounds = 1);
  /// How many rounds from the first cells on leave no cell coarser than wanted.
  static int rounds_needed(const Field& field);

  std::int64_t nb_cells() const { return forest_->local_num_quadrants; }
  std::int64_t nb_too_coarse(const Field& field) const;

  template <typename ValueAt>
  void set_values(const ValueAt& value_at) {
    for_all([&](p4est_quadrant_t& cell, double x, double y) { set(cell, value_at(x, y)); });
  }
  /// Largest difference between a cell's value and the given one.
  template <typename ValueAt>
  double largest_difference(const ValueAt& value_at) const {
    double largest = 0.0;
    for_all([&](p4est_quadrant_t& cell, double x, double y) {
      largest = std::max(largest, std::abs(get(cell) - value_at(x, y)));
    });
    return largest;
  }
  /// The values, packed in the order of the cells.
  std::vector<double> values() const;
  /// Sum over all cells of their neighbours' values.
  double walk(const std::vector<double>& values) const;

  static double get(const p4est_quadrant_t& cell);
  static void set(p4est_quadrant_t& cell, double value);

 private:
  template <typename Use>
  void for_all(const Use& use) const {
    const auto* tree = static_cast<const p4est_tree_t*>(sc_array_index(forest_->trees, 0));
    for (std::size_t i = 0; i < tree->quadrants.elem_count; ++i) {
      auto& cell = reinterpret_cast<p4est_quadrant_t*>(tree->quadrants.array)[i];
      constexpr double unit = 1.0 / P4EST_ROOT_LEN;
      const double half = 0.5 * P4EST_QUADRANT_LEN(cell.level);
      use(cell, (cell.x + half) * unit, (cell.y + half) * unit);
    }
  }
  void forget_neighbours();

  bool with_values_;
  p4est_connectivity_t* connectivity_;
  p4est_t* forest_;
  p4est_ghost_t* ghost_ = nullptr;
  p4est_mesh_t* mesh_ = nullptr;
  long revision_ = -1;  ///< of the forest, when its neighbours were looked up
};

}  // namespace velmar_2d::peers
