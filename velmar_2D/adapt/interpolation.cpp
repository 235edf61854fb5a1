// First data value of a new node: averages of its parents.
#include "velmar_2D/adapt/update_mesh_decl.hpp"

namespace velmar_2d::detail {

void interp_4pts(const Cell* c1, const Cell* c2, const Cell* c3, const Cell* c4, Cell* c) {
  c->data[0] = (((first_data(*c1) + first_data(*c2)) + first_data(*c3)) + first_data(*c4)) / 4.0;
}

// On a side the average runs along it: the first interior parent is left out, and the third one
// where the first two both lie on the boundary.
void interp_3pts(const Cell* c1, const Cell* c2, const Cell* c3, Cell* c) {
  const Cell *a = c1, *b = c2;
  if (c1->on_boundary == 0) {
    a = c2;
    b = c3;
  } else if (c2->on_boundary == 0) {
    b = c3;
  }
  c->data[0] = (first_data(*a) + first_data(*b)) / 2.0;
}

}  // namespace velmar_2d::detail
