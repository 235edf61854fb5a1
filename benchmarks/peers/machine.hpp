// What makes two measurements on one machine comparable.
#pragma once

#include <chrono>
#include <cstddef>

namespace velmar_2d::peers {

/// Keeps this thread on the core that it runs on.
void pin_one_core();

/// Gives freed memory back to the system, so that every run starts with an empty heap, and has the
/// system lay hands on so many bytes first, in small pages and in huge ones: memory that lay idle
/// is slow at its first touch.
void prepare_memory(std::size_t bytes);

/// Resident memory of this process in bytes, now and at most since the last reset_peak().
std::size_t resident_bytes();
std::size_t peak_bytes();
void reset_peak();

class Stopwatch {
 public:
  double seconds() const {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
  }

 private:
  std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

}  // namespace velmar_2d::peers
