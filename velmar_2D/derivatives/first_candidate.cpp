// The first candidate without the others. It is accepted at nearly every node with four neighbours
// and no square, so that most lists of candidates need not be made.
//
// In their order (candidate_order.cpp) the last block comes first: it begins with the smallest
// distance of all, and of equal ones with the first in order.
#include <algorithm>

#include "velmar_2D/derivatives/derivatives.hpp"

namespace velmar_2d::detail {

namespace {

bool precedes(CandidateOrder order, const Cell& a, const Cell& b) {
  return comes_first(order, static_cast<double>(a.id), a.x, a.y, static_cast<double>(b.id), b.x,
                     b.y);
}

}  // namespace

const Cell* first_candidate(const Cell* c, CandidateOrder order) {
  std::array<const Cell*, nb_directions> neighbours;
  for (int d = 0; d < nb_directions; ++d) {
    neighbours[static_cast<std::size_t>(d)] = link(*c, d).cell();
  }
  const Cell* first = nullptr;
  double smallest = 0.0;
  for (const Cell* neighbour : neighbours) {
    if (neighbour == nullptr) continue;
    for (int d = 0; d < nb_directions; ++d) {
      const Cell* candidate = link(*neighbour, d).cell();
      if (candidate == nullptr || candidate == c) continue;
      const double x = candidate->x - c->x, y = candidate->y - c->y;
      const double distance2 = y * y + x * x;
      if (first != nullptr && distance2 > smallest) continue;
      if (first != nullptr && distance2 == smallest && !precedes(order, *candidate, *first))
        continue;
      if (std::find(neighbours.begin(), neighbours.end(), candidate) != neighbours.end()) continue;
      first = candidate;
      smallest = distance2;
    }
  }
  return first;
}

}  // namespace velmar_2d::detail
