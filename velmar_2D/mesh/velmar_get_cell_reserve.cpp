#include "velmar_2D/records.hpp"

namespace velmar_2d {

std::int32_t velmar_get_cell_reserve(const Cell* c) { return c->reserve; }

}  // namespace velmar_2d
