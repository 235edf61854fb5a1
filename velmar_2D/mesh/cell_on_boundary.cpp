#include "velmar_2D/records.hpp"

namespace velmar_2d {

std::int32_t cell_on_boundary(const Cell* c) { return c->on_boundary; }

}  // namespace velmar_2d
