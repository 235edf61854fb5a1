// The only file that prints, waits for input or ends the process.
#include <charconv>
#include <cstdio>
#include <cstdlib>

#include "velmar_2D/internal.hpp"

namespace velmar_2d::detail {

namespace {

void print(std::string_view text) { std::fwrite(text.data(), 1, text.size(), stdout); }

}  // namespace

void message(std::string_view block) {
  if (message_handler) {
    message_handler(block);
    return;
  }
  print(block);
  print("\n");
}

void pause(std::string_view prompt) {
  if (pause_handler) {
    pause_handler(prompt);
    return;
  }
  if (message_handler) {
    message_handler(prompt);
  } else {
    print(prompt);
  }
  std::fflush(stdout);
  for (int c = std::getchar(); c != EOF && c != '\n'; c = std::getchar()) {
  }
}

void fatal(std::string_view block) {
  if (fatal_handler) fatal_handler(block);
  message(block);
  std::fflush(stdout);
  std::exit(EXIT_FAILURE);
}

std::string to_text(double value) {
  std::array<char, 32> digits;
  const auto result = std::to_chars(digits.data(), digits.data() + digits.size(), value);
  return {digits.data(), result.ptr};
}

void allocation_failed(std::size_t bytes) {
  // No std::string here: there may be no memory left for it.
  std::array<char, 64> text;
  std::snprintf(text.data(), text.size(), "Error allocating %lu bytes",
                static_cast<unsigned long>(bytes));
  fatal(text.data());
}

void release_of_missing(std::string_view name) {
  fatal("Attempt to DEALLOCATE unallocated '" + std::string(name) + "'");
}

}  // namespace velmar_2d::detail
