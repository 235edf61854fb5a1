#include "velmar_2D/velmar_2D.hpp"

namespace velmar_2d {

std::int32_t cell_on_boundary(const Cell* c) { return c->on_boundary; }

}  // namespace velmar_2d
