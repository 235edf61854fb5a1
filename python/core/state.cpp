// The library-wide state as Python sees it: sides, messages, numbered nodes.
#include "python/core/core.hpp"

namespace velmar_2d::python {

std::array<std::array<Boundary, 3>, 4> side_records;

namespace {

bool busy = false;

struct NumberedNodes {
  std::vector<Cell*> nodes;
  std::uint64_t revision = 0;
} numbered;

/// The level of logging that a message deserves.
const char* importance_of(std::string_view text) {
  if (text.find("ERROR") != text.npos || text.find("rror ") != text.npos) return "error";
  if (text.find("arning") != text.npos || text.find("RETURN") != text.npos) return "warning";
  return "info";
}

void log(std::string_view text) {
  const py::object logger = py::module_::import("logging").attr("getLogger")("velmar_2d");
  logger.attr(importance_of(text))("%s", py::str(text.data(), text.size()));
}

}  // namespace

std::int32_t side_code(const Boundary* record) {
  for (std::int32_t side = 0; side < 4; ++side) {
    for (std::int32_t kind = 0; kind < 3; ++kind) {
      const auto s = static_cast<std::size_t>(side), k = static_cast<std::size_t>(kind);
      if (record == &side_records[s][k]) return first_side_code - 3 * side - kind;
    }
  }
  return no_link_code;
}

Busy::Busy(std::string_view operation) {
  if (busy) {
    throw MeshFailure("velmar_2d: " + std::string(operation) +
                      " was called while the mesh is in use: by a callback of an update, or by "
                      "another thread");
  }
  busy = true;
}

Busy::~Busy() { busy = false; }

void take_over_messages() {
  fatal_handler = [](std::string_view text) { throw MeshFailure(std::string(text)); };
  message_handler = log;
  pause_handler = log;
}

void require_mesh() {
  if (nb_nodes <= 0) throw MeshFailure("velmar_2d: there is no mesh (it has been deleted)");
}

const std::vector<Cell*>& numbered_nodes() {
  require_mesh();
  if (numbered.revision != mesh_revision || numbered.nodes.empty()) {
    numbered.nodes.clear();
    numbered.nodes.reserve(static_cast<std::size_t>(nb_nodes));
    for (Cell* c = mesh_beg; c != nullptr; c = c->next) {
      c->used = static_cast<std::int32_t>(numbered.nodes.size());
      numbered.nodes.push_back(c);
    }
    numbered.revision = mesh_revision;
  }
  return numbered.nodes;
}

void forget_numbers() { std::vector<Cell*>().swap(numbered.nodes); }

}  // namespace velmar_2d::python
