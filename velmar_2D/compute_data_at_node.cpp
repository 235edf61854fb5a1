// Derivatives of the data at a node.
#include "velmar_2D/internal.hpp"

namespace velmar_2d {

// Stand-in until the stencils and fits are there: both indicators are 0.
void compute_data_at_node(Cell* c, double* dfdx, double* dfdy) {
  c->grad_data = 0.0;
  c->grad2_data = 0.0;
  if (dfdx != nullptr && dfdy != nullptr) *dfdx = *dfdy = 0.0;
}

}  // namespace velmar_2d
