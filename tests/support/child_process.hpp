// Runs a piece of code in a child process, to see how it ends and what it prints on the way.
#pragma once

#include <functional>
#include <string>
#include <string_view>

namespace velmar_2d::tests {

struct ChildEnd {
  std::string output;    ///< what reached standard output; only what was flushed before an exit
  int exit_status = -1;  ///< 0 where the code came back, -1 where a signal ended the child
};

/// Runs `code` in a forked child whose standard input holds `input` and then ends.
/// A child that takes longer than a minute is killed.
ChildEnd run_in_child(const std::function<void()>& code, std::string_view input = "");

}  // namespace velmar_2d::tests
