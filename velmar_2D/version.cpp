#include "velmar_2D/velmar_2D.hpp"

namespace velmar_2d {

// Defined by the build, which keeps the number in one place.
const char* version() { return VELMAR_2D_VERSION; }

}  // namespace velmar_2d
