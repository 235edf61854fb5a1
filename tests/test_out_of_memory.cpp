// Exhausted memory, and work that must take none, in a program of its own because it replaces the
// global allocation functions.
#include <cstdlib>
#include <new>

#include "scenarios/scenarios.hpp"
#include "support/child_process.hpp"
#include "support/mesh_view.hpp"

namespace {

// Allocations of this size and above fail; 0 lets all pass.
std::size_t refused_size = 0;

// Not inlined: the compiler would take free() for a mismatch with the operator new around it.
[[gnu::noinline]] void* allocate(std::size_t size) {
  return refused_size != 0 && size >= refused_size ? nullptr : std::malloc(size);
}
[[gnu::noinline]] void give_back(void* memory) { std::free(memory); }

}  // namespace

void* operator new(std::size_t size) {
  if (void* memory = allocate(size)) return memory;
  throw std::bad_alloc();
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return allocate(size); }
void* operator new[](std::size_t size) { return operator new(size); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return allocate(size); }
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
        refused_size = sizeof(Cell);
        scenarios::init_unit_square(2, 2, 1);
      },
      sizeof(Cell));
}

TEST(OutOfMemory, ForTheDataOfANode) {
  expect_end(
      [] {
        n_cell_data = 1000;
        refused_size = 8000;
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
        refused_size = 8000;
        insert_node_odd_level(v);
      },
      8000);
}

TEST(OutOfMemory, ForTheLevelArrays) {
  expect_end(
      [] {
        scenarios::init_unit_square(2, 2, 1);
        refused_size = 8000;
        set_subdiv_max(999);
      },
      1000 * sizeof(Handle));
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
      refused_size = 1;
      for (Cell* c = mesh_beg; c != nullptr; c = c->next) {
        double dx = 0.0, dy = 0.0;
        compute_data_at_node(c, &dx, &dy);
      }
      refused_size = 0;
    });
    EXPECT_EQ(end.exit_status, 0) << end.output;
  }
}

}  // namespace
}  // namespace velmar_2d::tests
