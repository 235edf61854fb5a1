// This library's side of the comparison.
#pragma once

#include "field.hpp"

namespace velmar_2d::peers::ours {

/// The first grid with so many values per node, for a field that `field` stands for.
void start(const Field& field, std::int32_t values);
/// Puts the first value into every node.
void set_values(const Field& field);
/// One adaptation; values, where there are any, are interpolated.
void update(const Field& field);
/// The update after which no node is coarser than wanted.
void resolve(const Field& field);
/// Gradient and Hessian norms of all nodes.
void compute_derivatives();
/// start() and so many updates.
void make(const Field& field, std::int32_t values, int nb_updates);
/// start() and one call of resolve().
void make_resolved(const Field& field, std::int32_t values);
/// Nodes whose level lies below the wanted one, and by how many levels at most.
struct TooCoarse {
  std::int64_t count = 0;
  double levels = 0.0;
  void add(const TooCoarse& other);
};
TooCoarse too_coarse(const Field& field);
/// Changes with the position of any node, whatever their order.
std::uint64_t position_hash();
/// How many updates the field takes from the first grid on.
struct Updates {
  int to_resolve = 0;  ///< until no node is coarser than wanted by more than a quarter of a level
  int to_settle = 0;   ///< until one more leaves every position as it is; the most there can be
};
/// Ends the process if 40 updates are too few to settle.
Updates updates_needed(const Field& field);
/// Sum over all nodes of their neighbours' values.
double walk();
void end();

}  // namespace velmar_2d::peers::ours
