// Classifying the control cell of a node.
#include <string>

#include "velmar_2D/cells/cells.hpp"

namespace velmar_2d::detail {

namespace {

void warn_of_unknown_shape(const State& state, const Cell& c, const Signature& signature) {
  message(state.handlers,
          "(velmar_2D/cell_type:) Warning: unknown shape of a control cell\n"
          "                       node " +
              std::to_string(c.id) + " at (" + to_text(c.x) + ", " + to_text(c.y) + "), level " +
              std::to_string(c.level) +
              "\n"
              "                       signature " +
              std::to_string(signature[0]) + ", " + std::to_string(signature[1]));
  pause(state.handlers, "[return for resume...]");
}

}  // namespace

const KnownShape* classify(const State& state, Cell& c) {
  const NodeShape found = look_at(state.domain, c);
  store_shared(c.signature[0], found.signature[0]);
  store_shared(c.signature[1], found.signature[1]);
  store_shared(c.signature_set, true);
  if (found.shape == nullptr) warn_of_unknown_shape(state, c, found.signature);
  return found.shape;
}

void cell_type(const State& state, Cell& c, std::int32_t& type, std::int32_t& shift) {
  const KnownShape* shape = classify(state, c);
  type = shape != nullptr ? shape->type : 0;
  shift = shape != nullptr ? shape->shift : 0;
}

}  // namespace velmar_2d::detail
