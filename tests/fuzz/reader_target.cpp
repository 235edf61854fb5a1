// The entry of the fuzzers of readers; VELMAR_2D_FUZZ_READER names one of them.
#include <cstdio>
#include <cstdlib>

#include "fuzz/files.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string fault = velmar_2d::tests::run_reader(VELMAR_2D_FUZZ_READER, {data, size});
  if (fault.empty()) return 0;
  std::fprintf(stderr, "%s\n", fault.c_str());
  std::abort();
}
