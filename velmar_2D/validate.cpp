// The check at the end of every change, in builds with VELMAR_2D_VALIDATE.
#include "velmar_2D/internal.hpp"

#if defined(VELMAR_2D_VALIDATE)

#include <exception>
#include <new>
#include <string>

namespace velmar_2d::detail {

namespace {

int changes_under_way = 0;

/// What the caller's own records and callbacks decide is not held against the library.
bool is_ours(const Finding& finding) { return finding.rule != "side"; }

void end_with(std::string_view operation, const Finding& finding) {
  std::string text = "(Velmar_2D:) " + std::string(operation) +
                     ": ERROR\n"
                     "             the mesh is not whole: " +
                     std::string(finding.rule) + "\n             (" + std::string(finding.text) +
                     ")";
  if (const Cell* c = finding.node) {
    text += "\n             at node " + std::to_string(c->id) + " at (" + to_text(c->x) + ", " +
            to_text(c->y) + "), level " + std::to_string(c->level);
  }
  fatal(text);
}

}  // namespace

MeshChange::MeshChange(std::string_view operation)
    : operation_(operation), exceptions_before_(std::uncaught_exceptions()) {
  ++changes_under_way;
}

MeshChange::~MeshChange() noexcept(false) {
  if (--changes_under_way > 0 || std::uncaught_exceptions() > exceptions_before_) return;
  std::vector<Finding> findings;
  try {
    find_broken_rules(findings);
  } catch (const std::bad_alloc&) {
    return;  // the change itself did not fail
  }
  const auto finding = std::find_if(findings.begin(), findings.end(), is_ours);
  if (finding != findings.end()) end_with(operation_, *finding);
}

}  // namespace velmar_2d::detail

#endif
