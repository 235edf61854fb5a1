#include "velmar_2D/mesh/state.hpp"

#include <exception>
#include <string>

namespace velmar_2d::detail {

namespace {

std::string error_of(std::string_view operation) {
  return "(velmar_2D/" + std::string(operation) + ":) ERROR: ";
}

/// Sets a flag while this scope lasts.
class Flag {
 public:
  explicit Flag(bool& flag) : flag_(flag) { flag_ = true; }
  Flag(const Flag&) = delete;
  Flag& operator=(const Flag&) = delete;
  ~Flag() { flag_ = false; }

 private:
  bool& flag_;
};

/// The handlers of a mesh that is an object are not asked: it may be one of them that has called.
/// Those of the process are, once.
[[noreturn]] void refuse_use(State& state, std::string_view operation, std::string_view user) {
  const std::string text = error_of(operation) + "the mesh is in use by " + std::string(user) +
                           "\n        (Callbacks and handlers must not call what changes it.)";
  if (state.handlers.of_object()) throw Error(text);
  if (state.is_refusing) end_at_once(text);
  const Flag refusing(state.is_refusing);
  fatal(state.handlers, text);
}

/// `level_max` and the arrays are at hand for callers of the free procedures.
void require_arrays(const State& state, std::string_view operation) {
  const std::size_t size = state.level_beg.size();
  const auto limit = static_cast<std::int64_t>(state.level_max);
  bool fit = limit >= 0 && static_cast<std::size_t>(limit) < size && state.level_end.size() == size;
  for (auto l = static_cast<std::size_t>(limit) + 1; fit && l < size; ++l) {
    fit = state.level_beg[l].next == nullptr;
  }
  if (fit) return;
  fatal(state.handlers, error_of(operation) + "'level_max' is " + std::to_string(limit) +
                            ", which is not the limit of the level arrays\n"
                            "        (They must not be changed but by set_subdiv_max.)");
}

}  // namespace

State::State() = default;

State::~State() {
  *self = nullptr;
  release_all_nodes(*this);
}

void require_no_use(State& state, std::string_view operation) {
  if (!state.in_use_by.empty()) refuse_use(state, operation, state.in_use_by);
  if (state.handlers.nb_running > 0) refuse_use(state, operation, "one of its handlers");
}

InUse::InUse(State& state, std::string_view operation, bool needs_arrays)
    : state_(state), exceptions_before_(std::uncaught_exceptions()) {
  if (!state.in_use_by.empty()) refuse_use(state, operation, state.in_use_by);
  if (needs_arrays && state.nb_nodes > 0) require_arrays(state, operation);
  state.in_use_by = operation;
}

InUse::~InUse() noexcept(false) {
  const std::string_view operation = std::exchange(state_.in_use_by, {});
  if (!state_.is_orphan) return;
  delete &state_;
  if (std::uncaught_exceptions() > exceptions_before_) return;
  Handlers no_one;  // its own have gone with it
  no_one.defaults = &no_one;
  fatal(no_one, error_of(operation) + "a callback or a handler has deleted the mesh");
}

void delete_state(State* state) {
  if (!state->in_use_by.empty()) {
    state->is_orphan = true;
  } else if (state->handlers.nb_running > 0) {
    state->handlers.owner = state;
    state->handlers.delete_owner = [](void* owner) { delete static_cast<State*>(owner); };
  } else {
    delete state;
  }
}

void list_was_changed(const State& state, std::string_view operation) {
  fatal(state.handlers, error_of(operation) +
                            "the list of nodes is not what it was\n"
                            "        ('prev' and 'next' must not be changed by hand.)");
}

void require_mesh(const State& state, std::string_view operation) {
  if (state.nb_nodes > 0) return;
  fatal(state.handlers, error_of(operation) +
                            "there is no mesh!\n"
                            "        (It must be made by init_mesh before this call.)");
}

void allocation_failed(const State& state, std::size_t bytes) {
  if (state.has_another_way) throw Exhausted{bytes};
  allocation_failed(state.handlers, bytes);
}

}  // namespace velmar_2d::detail
