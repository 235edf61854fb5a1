// The check at the end of every change, in builds with VELMAR_2D_VALIDATE.
#include "velmar_2D/check/check.hpp"

#if defined(VELMAR_2D_VALIDATE)

#include <exception>
#include <new>
#include <string>

namespace velmar_2d::detail {

namespace {

/// The first finding that is held against the library. Where the caller decided on the geometry, by
/// a single step or by a callback that selected no record for a side, only list and links count;
/// and that links are mutual only as long as nodes were inserted where there was place for them.
const Finding* first_of_ours(const State& state, const std::vector<Finding>& findings,
                             std::string_view operation) {
  static constexpr std::array<std::string_view, 7> structure = {
      "arrays", "list", "stretch", "count", "id", "link", "mutual"};
  const auto is_structure = [&state](const Finding& finding) {
    if (state.links_may_be_one_way && finding.rule == "mutual") return false;
    return std::find(structure.begin(), structure.end(), finding.rule) != structure.end();
  };
  const bool geometry_is_ours =
      operation.find("_node_") == std::string_view::npos && !state.links_may_be_one_way &&
      std::none_of(findings.begin(), findings.end(),
                   [](const Finding& finding) { return finding.rule == "side"; });
  for (const Finding& finding : findings) {
    if (geometry_is_ours || is_structure(finding)) return &finding;
  }
  return nullptr;
}

/// Whether the mesh is whole; true where no memory is left to check it.
bool is_whole(const State& state, std::string_view operation, std::vector<Finding>& findings) {
  try {
    find_broken_rules(state, findings);
  } catch (const std::bad_alloc&) {
    return true;
  }
  return first_of_ours(state, findings, operation) == nullptr;
}

[[noreturn]] void end_with(const State& state, std::string_view operation, const Finding& finding) {
  std::string text = "(Velmar_2D:) " + std::string(operation) +
                     ": ERROR\n"
                     "             the mesh is not whole: " +
                     std::string(finding.rule) + "\n             (" + std::string(finding.text) +
                     ")";
  if (const Cell* c = finding.node) {
    text += "\n             at node " + std::to_string(c->id) + " at (" + to_text(c->x) + ", " +
            to_text(c->y) + "), level " + std::to_string(c->level);
  }
  fatal(state.handlers, text);
}

}  // namespace

MeshChange::MeshChange(State& state, std::string_view operation, bool needs_arrays)
    : in_use_(state, operation, needs_arrays),
      state_(state),
      operation_(operation),
      exceptions_before_(std::uncaught_exceptions()) {
  std::vector<Finding> findings;
  was_whole_ = is_whole(state, "", findings);
}

MeshChange::~MeshChange() noexcept(false) {
  if (std::uncaught_exceptions() > exceptions_before_) return;
  std::vector<Finding> findings;
  if (was_whole_ && !is_whole(state_, operation_, findings)) {
    end_with(state_, operation_, *first_of_ours(state_, findings, operation_));
  }
}

}  // namespace velmar_2d::detail

#endif
