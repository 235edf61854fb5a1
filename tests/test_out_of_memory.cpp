// Exhausted memory, and work that must take none, in a program of its own because it replaces the
// global allocation functions.
#include <cstdint>
#include <cstdlib>
#include <new>
#include <set>

#include "scenarios/scenarios.hpp"
#include "support/child_process.hpp"
#include "support/mesh_view.hpp"

namespace {

// Allocations in this range of sizes fail, and all of them once so many more have been made.
std::size_t smallest_refused = 1, largest_refused = 0;
constexpr long no_end = -1;
long still_granted = no_end;
long in_use = 0;  // allocations not given back yet

bool is_refused(std::size_t size) {
  if (still_granted == 0) return true;
  if (still_granted > 0) --still_granted;
  return smallest_refused <= size && size <= largest_refused;
}
void refuse(std::size_t smallest, std::size_t largest) {
  smallest_refused = smallest;
  largest_refused = largest;
}

// Not inlined: the compiler would take free() for a mismatch with the operator new around it.
[[gnu::noinline]] void* allocate(std::size_t size) {
  void* memory = is_refused(size) ? nullptr : std::malloc(size);
  in_use += memory != nullptr ? 1 : 0;
  return memory;
}
[[gnu::noinline]] void* allocate(std::size_t size, std::align_val_t alignment) {
  const auto multiple = static_cast<std::size_t>(alignment);
  const std::size_t whole = (size + multiple - 1) / multiple * multiple;
  void* memory = is_refused(size) ? nullptr : std::aligned_alloc(multiple, whole);
  in_use += memory != nullptr ? 1 : 0;
  return memory;
}
[[gnu::noinline]] void give_back(void* memory) {
  in_use -= memory != nullptr ? 1 : 0;
  std::free(memory);
}

}  // namespace

void* operator new(std::size_t size) {
  if (void* memory = allocate(size)) return memory;
  throw std::bad_alloc();
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return allocate(size); }
void* operator new[](std::size_t size) { return operator new(size); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return allocate(size); }
void* operator new(std::size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
  return allocate(size, alignment);
}
void* operator new(std::size_t size, std::align_val_t alignment) {
  if (void* memory = allocate(size, alignment)) return memory;
  throw std::bad_alloc();
}
void operator delete(void* memory, std::align_val_t) noexcept { give_back(memory); }
void operator delete(void* memory, std::size_t, std::align_val_t) noexcept { give_back(memory); }
void operator delete(void* memory) noexcept { give_back(memory); }
void operator delete(void* memory, std::size_t) noexcept { give_back(memory); }
void operator delete[](void* memory) noexcept { give_back(memory); }
void operator delete[](void* memory, std::size_t) noexcept { give_back(memory); }

namespace velmar_2d::tests {
namespace {

void expect_end(const std::function<void()>& code, std::size_t bytes) {
  const ChildEnd end = run_in_child(code);
  EXPECT_EQ(end.output, "Error allocating " + std::to_string(bytes) + " bytes\n");
  EXPECT_EQ(end.exit_status, EXIT_FAILURE);
}

TEST(OutOfMemory, ForANode) {
  expect_end(
      [] {
        refuse(sizeof(Cell), SIZE_MAX);
        scenarios::init_unit_square(2, 2, 1);
      },
      sizeof(Cell));
}

TEST(OutOfMemory, ForTheDataOfANode) {
  expect_end(
      [] {
        n_cell_data = 1000;
        refuse(8000, 16000);
        scenarios::init_unit_square(2, 2, 1);
      },
      8000);
}

TEST(OutOfMemory, ForTheDataOfAnInsertedNode) {
  expect_end(
      [] {
        n_cell_data = 1000;
        scenarios::init_unit_square(2, 2, 1);
        const Vertex v = proposals_around(mesh_beg).at(0);
        refuse(8000, 16000);
        insert_node_odd_level(v);
      },
      8000);
}

TEST(OutOfMemory, ForTheLevelArrays) {
  expect_end(
      [] {
        scenarios::init_unit_square(2, 2, 1);
        refuse(8000, 16000);
        set_subdiv_max(999);
      },
      1000 * sizeof(Handle));
}

// Memory ends after ever more allocations, until the work is done: nodes with three values take one
// each. What exists then is whole, and all of it can be given back without memory.
TEST(OutOfMemory, AnywhereLosesNoNode) {
  n_cell_data = 3;
  scenarios::set_domain(0.0, 1.0, 0.0, 1.0);
  const bc_type_function kinds = scenarios::all_dirichlet;
  const size_function spacing = scenarios::even_spacing(0.02);
  std::array<char, 64> text{};
  message_handler = [&](std::string_view block) { block.copy(text.data(), text.size()); };
  fatal_handler = [](std::string_view) { throw 1; };
  const long before = in_use;
  std::set<std::int32_t> node_counts;
  bool done = false;
  for (long granted = 0; !done; granted += 1 + granted / 8) {
    still_granted = granted;
    try {
      double y_max = 0.0;
      init_mesh(kinds, 5, 5, 8, y_max);
      for (int i = 0; i < 4; ++i) update_mesh_no_init(spacing);
      set_subdiv_max(2);
      set_subdiv_max(100);
      done = true;
    } catch (int) {
    }
    still_granted = no_end;
    std::vector<Finding> findings;
    EXPECT_EQ(check_mesh(findings), 0U) << granted;
    const std::int32_t nodes = nb_nodes;
    node_counts.insert(nodes);
    if (!level_beg.empty()) {
      text = {};
      still_granted = 0;
      delete_mesh();
      still_granted = no_end;
      EXPECT_EQ(text.data(), " nb of deallocated nodes: " + std::to_string(nodes));
    }
  }
  EXPECT_GT(node_counts.size(), 20U) << "provoked in the middle of updates";
  node_counts.clear();
  EXPECT_EQ(in_use, before);
  n_cell_data = 0;
  fatal_handler = message_handler = nullptr;
}

// Far from the origin the search for a stencil runs twice.
TEST(NoMemory, ForTheDerivatives) {
  for (const double origin : {0.0, 100.0}) {
    const ChildEnd end = run_in_child([&] {
      n_cell_data = 1;
      scenarios::set_domain(origin, origin + 1.0, origin, origin + 1.0);
      double y_max = 0.0;
      init_mesh(scenarios::all_dirichlet, 4, 4, 7, y_max);
      const scenarios::Ring ring{origin + 0.3, origin + 0.3, 0.4};
      for (int i = 0; i < 6; ++i) {
        update_mesh_no_init(scenarios::ring_spacing(ring, 0.3, dist_0 / 8.0, dist_0));
      }
      refuse(1, SIZE_MAX);
      for (Cell* c = mesh_beg; c != nullptr; c = c->next) {
        double dx = 0.0, dy = 0.0;
        compute_data_at_node(c, &dx, &dy);
      }
      refuse(1, 0);
    });
    EXPECT_EQ(end.exit_status, 0) << end.output;
  }
}

}  // namespace
}  // namespace velmar_2d::tests
