// The only file that prints, waits for input or ends the process.
#include <charconv>
#include <cstdio>
#include <cstdlib>

#include "velmar_2D/base/base.hpp"

namespace velmar_2d::detail {

namespace {

void print(std::string_view text) { std::fwrite(text.data(), 1, text.size(), stdout); }

/// The mesh's own handler, or that of the process.
const text_function& chosen(const Handlers& handlers, text_function Handlers::*kind) {
  const text_function& own = handlers.*kind;
  return own || !handlers.of_object() ? own : handlers.defaults->*kind;
}

/// A call of a handler, which may delete the mesh that it belongs to.
class HandlerCall {
 public:
  explicit HandlerCall(const Handlers& handlers) : handlers_(handlers) { ++handlers.nb_running; }
  HandlerCall(const HandlerCall&) = delete;
  HandlerCall& operator=(const HandlerCall&) = delete;
  ~HandlerCall() {
    if (--handlers_.nb_running == 0 && deletes_mesh()) handlers_.delete_owner(handlers_.owner);
  }
  bool deletes_mesh() const { return handlers_.delete_owner != nullptr; }

 private:
  const Handlers& handlers_;
};

void call(const Handlers& handlers, const text_function& handler, std::string_view text) {
  const HandlerCall running(handlers);
  handler(text);
  if (running.deletes_mesh()) {
    throw Error("(velmar_2D/Mesh:) ERROR: a handler has deleted the mesh");
  }
}

}  // namespace

void message(const Handlers& handlers, std::string_view block) {
  if (const text_function& handler = chosen(handlers, &Handlers::message)) {
    call(handlers, handler, block);
  } else if (!handlers.of_object()) {
    print(block);
    print("\n");
  }
}

void pause(const Handlers& handlers, std::string_view prompt) {
  if (const text_function& handler = chosen(handlers, &Handlers::pause)) {
    call(handlers, handler, prompt);
    return;
  }
  const text_function& texts = chosen(handlers, &Handlers::message);
  if (texts) call(handlers, texts, prompt);
  if (handlers.of_object()) return;
  if (!texts) print(prompt);
  std::fflush(stdout);
  for (int c = std::getchar(); c != EOF && c != '\n'; c = std::getchar()) {
  }
}

void fatal(const Handlers& handlers, std::string_view block) {
  if (const text_function& handler = chosen(handlers, &Handlers::fatal)) {
    call(handlers, handler, block);
  }
  if (handlers.of_object()) throw Error(std::string(block));
  message(handlers, block);
  std::fflush(stdout);
  std::exit(EXIT_FAILURE);
}

void end_at_once(std::string_view block) {
  print(block);
  print("\n");
  std::fflush(stdout);
  std::exit(EXIT_FAILURE);
}

std::string to_text(double value) {
  std::array<char, 32> digits;
  const auto result = std::to_chars(digits.data(), digits.data() + digits.size(), value);
  return {digits.data(), result.ptr};
}

void allocation_failed(const Handlers& handlers, std::size_t bytes) {
  // No std::string here: there may be no memory left for it.
  std::array<char, 64> text;
  std::snprintf(text.data(), text.size(), "Error allocating %lu bytes",
                static_cast<unsigned long>(bytes));
  fatal(handlers, text.data());
}

void release_of_missing(const Handlers& handlers, std::string_view name) {
  fatal(handlers, "Attempt to DEALLOCATE unallocated '" + std::string(name) + "'");
}

}  // namespace velmar_2d::detail
