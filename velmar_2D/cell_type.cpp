// Classifying the control cell of a node.
#include <string>

#include "velmar_2D/cell_geometry.hpp"

namespace velmar_2d {

namespace detail {

namespace {

void warn_of_unknown_shape(const Cell& c) {
  message(
      "(velmar_2D/cell_type:) Warning: unknown shape of a control cell\n"
      "                       node " +
      std::to_string(c.id) + " at (" + to_text(c.x) + ", " + to_text(c.y) + "), level " +
      std::to_string(c.level) +
      "\n"
      "                       signature " +
      std::to_string(c.signature[0]) + ", " + std::to_string(c.signature[1]));
  pause("[return for resume...]");
}

}  // namespace

const KnownShape* classify(Cell& c) {
  const NodeShape found = look_at(c);
  c.signature = found.signature;
  c.signature_set = true;
  if (found.shape == nullptr) warn_of_unknown_shape(c);
  return found.shape;
}

}  // namespace detail

void cell_type(Cell* c, std::int32_t& type, std::int32_t& shift) {
  const detail::KnownShape* shape = detail::classify(*c);
  type = shape != nullptr ? shape->type : 0;
  shift = shape != nullptr ? shape->shift : 0;
}

}  // namespace velmar_2d
