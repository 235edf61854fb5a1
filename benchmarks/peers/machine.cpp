#include "machine.hpp"

#include <malloc.h>
#include <sched.h>
#include <sys/mman.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

namespace velmar_2d::peers {

void pin_one_core() {
  cpu_set_t cores;
  CPU_ZERO(&cores);
  CPU_SET(static_cast<std::size_t>(sched_getcpu()), &cores);
  if (sched_setaffinity(0, sizeof cores, &cores) != 0) std::perror("sched_setaffinity");
}

namespace {
/// `advice` chooses the kind of pages: those that were used last are handed out first, by kind.
void touch(std::size_t bytes, int advice) {
  void* memory = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) return;
  madvise(memory, bytes, advice);
  std::memset(memory, 1, bytes);
  munmap(memory, bytes);
}
}  // namespace

void prepare_memory(std::size_t bytes) {
  malloc_trim(0);
  if (bytes == 0) return;
  touch(bytes, MADV_NOHUGEPAGE);
  touch(bytes, MADV_HUGEPAGE);
}

namespace {
std::size_t status(const std::string& name) {
  std::ifstream file("/proc/self/status");
  std::string word;
  std::size_t kilobytes = 0;
  while (file >> word) {
    if (word == name && file >> kilobytes) return kilobytes * 1024;
  }
  std::fprintf(stderr, "/proc/self/status has no %s\n", name.c_str());
  std::exit(EXIT_FAILURE);
}
}  // namespace

std::size_t resident_bytes() { return status("VmRSS:"); }
std::size_t peak_bytes() { return status("VmHWM:"); }

void reset_peak() { std::ofstream("/proc/self/clear_refs") << "5\n"; }

}  // namespace velmar_2d::peers
