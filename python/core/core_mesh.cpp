// One mesh as Python sees it: who may use it, its messages, its nodes by number.
#include "python/core/core.hpp"

namespace velmar_2d::python {

namespace {

/// The level of logging that a message deserves.
const char* importance_of(std::string_view text) {
  if (text.find("ERROR") != text.npos || text.find("rror ") != text.npos) return "error";
  if (text.find("arning") != text.npos || text.find("RETURN") != text.npos) return "warning";
  return "info";
}

[[noreturn]] void refuse_in_use(std::string_view operation) {
  throw Error("velmar_2d: " + std::string(operation) +
              " was called while the mesh is in use: by a callback of an update, or by another "
              "thread");
}

[[noreturn]] void refuse_deleted() { throw Error("velmar_2d: this mesh has been deleted"); }

}  // namespace

void log(std::string_view text) {
  const py::gil_scoped_acquire python;
  const py::object logger = py::module_::import("logging").attr("getLogger")("velmar_2d");
  logger.attr(importance_of(text))("%s", py::str(text.data(), text.size()));
}

Busy::Busy(CoreMesh& core, std::string_view operation) : core_(core) {
  if (core.busy_) refuse_in_use(operation);
  if (!core.is_alive()) refuse_deleted();
  core.busy_ = true;
  core.user_ = std::this_thread::get_id();
}

void CoreMesh::remove() {
  if (!is_alive()) return;
  const Busy busy(*this, "delete");
  std::vector<Cell*>().swap(numbered_);
  mesh = nullptr;
}

const Mesh& CoreMesh::readable() const {
  if (!is_alive()) refuse_deleted();
  if (busy_ && user_ != std::this_thread::get_id()) refuse_in_use("reading");
  return *mesh;
}

const std::vector<Cell*>& CoreMesh::numbered_nodes() {
  if (numbered_.empty() || numbered_revision_ != mesh->revision()) {
    numbered_.clear();
    numbered_.reserve(static_cast<std::size_t>(mesh->size()));
    for (Cell& c : mesh->nodes()) {
      c.used = static_cast<std::int32_t>(numbered_.size());
      numbered_.push_back(&c);
    }
    numbered_revision_ = mesh->revision();
  }
  return numbered_;
}

std::int32_t CoreMesh::code_of(const Boundary* record) const {
  constexpr std::array<Direction, 4> sides = {Direction::north, Direction::east, Direction::south,
                                              Direction::west};
  for (std::int32_t side = 0; side < 4; ++side) {
    for (std::int32_t kind = bc_type_dir; kind <= bc_type_oth; ++kind) {
      if (record == &mesh->side_record(sides[static_cast<std::size_t>(side)], kind)) {
        return first_side_code - 3 * side - kind;
      }
    }
  }
  return no_link_code;
}

}  // namespace velmar_2d::python
