// The entry of the fuzzer. Runs for ever unless told otherwise:
//   velmar_2d_fuzz -max_total_time=600 <new corpus> tests/fuzz/corpus
#include <cstdio>
#include <cstdlib>

#include "fuzz/calls.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string fault = velmar_2d::tests::run_calls({data, size});
  if (fault.empty()) return 0;
  std::fprintf(stderr, "%s\n", fault.c_str());
  std::abort();
}
