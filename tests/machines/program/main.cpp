// Whether this machine, compiler and flags make the meshes that are known to the last bit.
#include <cinttypes>
#include <cstdio>
#include <string>
#include <string_view>

#include "support/golden_meshes.hpp"
#include "support/mesh_hash.hpp"

namespace {

using namespace velmar_2d::tests;

int nb_differences = 0;

void compare(const char* name, const std::string& made, const std::string& known) {
  if (made == known) return;
  std::printf("%s: %s instead of %s\n", name, made.c_str(), known.c_str());
  ++nb_differences;
}

std::string in_hex(std::uint64_t hash) {
  char text[20];
  std::snprintf(text, sizeof text, "%" PRIx64, hash);
  return text;
}

}  // namespace

int main() {
  velmar_2d::message_handler = velmar_2d::pause_handler = [](std::string_view) {};
  for (const GoldenMesh& golden : golden_meshes()) {
    for (const Face face : {Face::free_procedures, Face::object}) {
      GoldenRun run(golden, face);
      while (!run.is_over()) run.step();
      compare(golden.name, fingerprint(run.mesh()), golden.result);
      run.end();
    }
  }
  compare("at thresholds", in_hex(hash_at_thresholds()), in_hex(known_hash_at_thresholds));
  if (nb_differences == 0) std::puts("the same meshes");
  return nb_differences == 0 ? 0 : 1;
}
