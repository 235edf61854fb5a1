#include "velmar_2D/records.hpp"

namespace velmar_2d {

std::int32_t cell_ipos(const Cell* c) { return c->ipos; }

}  // namespace velmar_2d
