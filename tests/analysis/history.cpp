// Histories of a mesh for valgrind: reads of what was never written and leaks, which the address
// sanitizer does not look for within a slab of nodes.
#include "support/history.hpp"

#include <cstdio>

#include "velmar_2D/velmar_2D.hpp"

int main() {
  using namespace velmar_2d;
  message_handler = pause_handler = [](std::string_view) {};
  std::size_t nb_findings = 0;
  std::int64_t nb_nodes_checked = 0;
  constexpr std::array kinds = {tests::Steps::adapt, tests::Steps::adapt_hostile,
                                tests::Steps::single_nodes};
  for (std::uint64_t seed = 0; seed < 12; ++seed) {
    const tests::HistoryPlan plan{seed, kinds[seed % kinds.size()], seed % 2 == 1, 20};
    run_history(plan, [&](const std::string&) {
      std::vector<Finding> findings;
      nb_findings += check_mesh(findings);
      for (Cell* c = mesh_beg; c != nullptr; c = c->next) {
        if (!(cell_area(c) > 0.0)) ++nb_findings;  // depends on every link
      }
      nb_nodes_checked += nb_nodes;
    });
    delete_mesh();
  }
  std::printf("%lld nodes checked, %zu findings\n", static_cast<long long>(nb_nodes_checked),
              nb_findings);
  return nb_findings == 0 && nb_nodes_checked > 10000 ? 0 : 1;
}
