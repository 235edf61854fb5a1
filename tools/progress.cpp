#include "tools/progress.hpp"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>

#if __has_include(<unistd.h>)
#include <unistd.h>
#endif

namespace velmar_2d::tools {

namespace {

volatile std::sig_atomic_t was_interrupted = 0;

void note_interrupt(int signal) {
  was_interrupted = 1;
  std::signal(signal, SIG_DFL);
}

bool stderr_is_terminal() {
#if __has_include(<unistd.h>)
  return isatty(STDERR_FILENO) != 0;
#else
  return false;
#endif
}

/// 1234567 as "1 234 567".
std::string grouped(std::int64_t number) {
  std::string text = std::to_string(number);
  for (std::size_t i = text.size(); i > 3;) text.insert(i -= 3, 1, ' ');
  return text;
}

}  // namespace

InterruptsAreHeeded::InterruptsAreHeeded() {
  was_interrupted = 0;
  // Whoever started the program may have told it to ignore them.
  if (std::signal(SIGINT, note_interrupt) == SIG_IGN) std::signal(SIGINT, SIG_IGN);
}

InterruptsAreHeeded::~InterruptsAreHeeded() {
  if (std::signal(SIGINT, SIG_DFL) == SIG_IGN) std::signal(SIGINT, SIG_IGN);
}

bool InterruptsAreHeeded::was_pressed() { return was_interrupted != 0; }

void end_by_interrupt() {
  std::signal(SIGINT, SIG_DFL);
  std::raise(SIGINT);
  constexpr int as_shells_say = 130;
  std::_Exit(as_shells_say);
}

ProgressLine::ProgressLine(bool also_in_files)
    : is_terminal_(stderr_is_terminal()), tells_(is_terminal_ || also_in_files) {}

void ProgressLine::tell(std::string_view what, std::int64_t nb_nodes, double share) {
  if (!tells_) return;
  const auto now = Clock::now();
  const std::chrono::duration<double> since_begin = now - begin_, since_last = now - last_;
  const double pause = !is_terminal_ ? 1.0 : is_there_ ? 0.1 : 0.5;
  if (since_last.count() < pause) return;
  last_ = now;
  std::string line(what);
  if (share >= 0.0) {
    constexpr double all = 100.0;
    line += " " + std::to_string(static_cast<int>(all * std::min(share, 1.0))) + " %";
  }
  std::fprintf(stderr, "%s%s: %s nodes, %.*f s%s", is_terminal_ ? "\r\033[K" : "", line.c_str(),
               grouped(nb_nodes).c_str(), is_terminal_ ? 1 : 0, since_begin.count(),
               is_terminal_ ? "" : "\n");
  std::fflush(stderr);
  is_there_ = true;
}

void ProgressLine::wipe() {
  if (is_there_ && is_terminal_) std::fputs("\r\033[K", stderr);
  is_there_ = false;
}

}  // namespace velmar_2d::tools
