// Classifying the control cell of a node.
#include "velmar_2D/cell_geometry.hpp"

#include <string>

namespace velmar_2d {

namespace detail {

namespace {

void warn_of_unknown_shape(const Cell& c) {
  message("(velmar_2D/cell_type:) Warning: unknown shape of a control cell\n"
          "                       node " + std::to_string(c.id) + " at (" + to_text(c.x) + ", " +
          to_text(c.y) + "), level " + std::to_string(c.level) + "\n"
          "                       signature " + std::to_string(c.signature[0]) + ", " +
          std::to_string(c.signature[1]));
  pause("[return for resume...]");
}

}  // namespace

const KnownShape* classify(Cell& c) {
  if (c.signature_set) {
    if (const KnownShape* shape = known_shape(c.signature)) return shape;
  }
  const Surroundings s = surroundings_of(c);
  const KnownShape* shape = fitting_shape(s);
  c.signature = signature_of(s);
  c.signature_set = true;
  if (shape == nullptr) {
    if (known_shape(c.signature) != nullptr) c.signature[1] = no_fit;
    warn_of_unknown_shape(c);
  }
  return shape;
}

}  // namespace detail

void cell_type(Cell* c, std::int32_t& type, std::int32_t& shift) {
  const detail::KnownShape* shape = detail::classify(*c);
  type = shape != nullptr ? shape->type : 0;
  shift = shape != nullptr ? shape->shift : 0;
}

}  // namespace velmar_2d
