#include "support/plugin.hpp"

namespace velmar_2d::tests {

const Charge* charge_read_elsewhere(const Cell& c) { return c.data_ptr.get<Charge>(); }

}  // namespace velmar_2d::tests
