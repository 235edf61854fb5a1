// How far the program is, for the eye; and Ctrl-C, which leaves no half-written line.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

namespace velmar_2d::tools {

/// While this lasts, Ctrl-C waits for those who ask; a second one ends the program at once.
class InterruptsAreHeeded {
 public:
  InterruptsAreHeeded();
  InterruptsAreHeeded(const InterruptsAreHeeded&) = delete;
  InterruptsAreHeeded& operator=(const InterruptsAreHeeded&) = delete;
  ~InterruptsAreHeeded();
  static bool was_pressed();
};

/// Ends the program as Ctrl-C does, without giving back a mesh node by node.
[[noreturn]] void end_by_interrupt();

/// On a terminal one line that is drawn anew, ten times a second at most, and wiped away when all
/// is done; elsewhere, where that is asked for, a line a second. Silent for the first half second.
class ProgressLine {
 public:
  /// @param also_in_files  tells where standard error is no terminal, too
  explicit ProgressLine(bool also_in_files);
  ProgressLine(const ProgressLine&) = delete;
  ProgressLine& operator=(const ProgressLine&) = delete;
  ~ProgressLine() { wipe(); }

  /// @param share  of the work that is done; negative: nobody knows
  void tell(std::string_view what, std::int64_t nb_nodes, double share = -1.0);
  void wipe();

 private:
  using Clock = std::chrono::steady_clock;

  bool is_terminal_, tells_;
  bool is_there_ = false;
  Clock::time_point begin_ = Clock::now(), last_ = begin_;
};

}  // namespace velmar_2d::tools
