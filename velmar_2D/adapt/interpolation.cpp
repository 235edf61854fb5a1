// Data values of a new node: averages of its parents.
#include "velmar_2D/adapt/update_mesh_decl.hpp"

namespace velmar_2d::detail {

namespace {

double mean_of(const Cell* c1, const Cell* c2, const Cell* c3, const Cell* c4, std::size_t value) {
  return (((value_of(*c1, value) + value_of(*c2, value)) + value_of(*c3, value)) +
          value_of(*c4, value)) /
         4.0;
}

// On a side the average runs along it: the first interior parent is left out, and the third one
// where the first two both lie on the boundary.
double mean_of(const Cell* c1, const Cell* c2, const Cell* c3, std::size_t value) {
  const Cell *a = c1, *b = c2;
  if (c1->on_boundary == 0) {
    a = c2;
    b = c3;
  } else if (c2->on_boundary == 0) {
    b = c3;
  }
  return (value_of(*a, value) + value_of(*b, value)) / 2.0;
}

}  // namespace

double mean_of_parents(const std::array<Cell*, 4>& parents, std::size_t value) {
  const auto& p = parents;
  return p[3] != nullptr ? mean_of(p[0], p[1], p[2], p[3], value)
                         : mean_of(p[0], p[1], p[2], value);
}

void interp_4pts(const Cell* c1, const Cell* c2, const Cell* c3, const Cell* c4, Cell* c) {
  c->data[0] = mean_of(c1, c2, c3, c4, 0);
}

void interp_3pts(const Cell* c1, const Cell* c2, const Cell* c3, Cell* c) {
  c->data[0] = mean_of(c1, c2, c3, 0);
}

}  // namespace velmar_2d::detail
