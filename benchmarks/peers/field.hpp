// What both sides are asked for: the wanted spacing around a ring on the unit square.
#pragma once

#include "scenarios/scenarios.hpp"

namespace velmar_2d::peers {

/// A first grid of 33 x 33 nodes, or of 32 x 32 cells.
inline constexpr int first_level = 5;
inline constexpr int cells_along = 1 << first_level;
inline constexpr double coarsest = 1.0 / cells_along;

/// clamp(grading * distance to the ring, finest, coarsest)
struct Field {
  scenarios::Ring ring;
  double grading = 0.1, finest = coarsest;
  double operator()(double x, double y) const {
    return std::clamp(grading * ring.distance(x, y), finest, coarsest);
  }
};

/// The first value of a node or cell, where values are carried.
double first_value(const Field& field, double x, double y);

inline constexpr int nb_front_steps = 50;

}  // namespace velmar_2d::peers
