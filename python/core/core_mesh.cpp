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
  arrays_ = nullptr;
  mesh = nullptr;
}

const Mesh& CoreMesh::readable() const {
  if (!is_alive()) refuse_deleted();
  if (busy_ && user_ != std::this_thread::get_id()) refuse_in_use("reading");
  return *mesh;
}

const std::shared_ptr<MeshArrays>& CoreMesh::arrays() {
  if (arrays_ != nullptr && arrays_.use_count() == 1) {
    arrays_->update();
  } else if (arrays_ == nullptr || !arrays_->is_current()) {
    arrays_ = nullptr;  // others hold it, or no one
    arrays_ = std::make_shared<MeshArrays>(*mesh);
  }
  return arrays_;
}

}  // namespace velmar_2d::python
