// The derivatives at a node computed step by step on plain lists, with nothing avoided: every
// search is made, every condition estimated, every order produced by selecting and deleting.
#pragma once

#include <vector>

#include "velmar_2D/velmar_2D.hpp"

namespace velmar_2d::tests {

struct LiteralRow {
  double id, x, y, value, distance2;
};
using LiteralRows = std::vector<LiteralRow>;

struct LiteralDerivatives {
  enum class Path { square, side, fit, five, retry, second_search, corner, none };
  Path path = Path::none;  ///< none: the process would end
  double dx = 0.0, dy = 0.0, grad = 0.0, grad2 = 0.0;
};

LiteralDerivatives literal_derivatives(const Cell& c);

/// Condition estimate in coordinates relative to the node, in units of the largest distance.
double literal_condition(const Cell& c, const LiteralRows& rows);
/// The rows sorted by id, without repetitions, by repeated selection.
void literal_unique(LiteralRows& rows);
/// The rows that are not in the stencil, by repeated selection of the smallest distance, in which
/// deleted rows leave their distances behind.
void literal_order(const LiteralRows& stencil, LiteralRows& rows);

}  // namespace velmar_2d::tests
