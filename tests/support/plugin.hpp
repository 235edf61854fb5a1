// A shared object that is compiled with hidden visibility.
#pragma once

#include "velmar_2D/records.hpp"

namespace velmar_2d::tests {

/// Something of a caller's that two shared objects know.
struct Charge {
  double density = 0.0;
};

[[gnu::visibility("default")]] const Charge* charge_read_elsewhere(const Cell& c);

}  // namespace velmar_2d::tests
