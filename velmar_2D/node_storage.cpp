// The one place that creates nodes and the one that releases them.
//
// Nodes live in slabs, large blocks of memory that are cut into slots from front to back, so that
// nodes created one after another, mostly neighbours, lie together. Slots of released nodes form a
// list and are used again first. Slabs grow with the mesh and are returned when it is deleted.
#include <limits>
#include <new>

#include "velmar_2D/scout.hpp"

#if defined(__linux__)
#include <sys/mman.h>
#endif
#if defined(__SANITIZE_ADDRESS__)
#define VELMAR_2D_POISON_SLOTS
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define VELMAR_2D_POISON_SLOTS
#endif
#endif
#if defined(VELMAR_2D_POISON_SLOTS)
#include <sanitizer/asan_interface.h>
#endif

namespace velmar_2d::detail {

namespace {

/// The first slab suits a small mesh; large ones are whole huge pages where the system has them.
constexpr std::size_t smallest_slab = std::size_t{1} << 16, largest_slab = std::size_t{1} << 22;
constexpr std::size_t huge_page = std::size_t{1} << 21;

struct Slab {
  void* memory;
  std::size_t bytes;
};

/// A slot that waits for its next use. A new node writes all of it, so that memory is asked for the
/// slots a few uses before.
struct FreeSlot {
  FreeSlot* next;
  FreeSlot* later;  ///< one that will be used a little after this one, or was
};
constexpr std::size_t slots_ahead = 6;

std::vector<Slab> slabs;
std::byte *unused_begin = nullptr, *unused_end = nullptr;  // rest of the last slab
FreeSlot* free_slots = nullptr;
std::array<FreeSlot*, slots_ahead> recent_free_slots{};
std::size_t nb_freed = 0;
std::size_t bytes_in_slabs = 0;

std::align_val_t alignment_of(std::size_t bytes) {
  return std::align_val_t{bytes >= huge_page ? huge_page : alignof(Cell)};
}

// Slots that hold no node must not be read: a sanitizer build notices a stale reference.
void poison(void* slot) {
#if defined(VELMAR_2D_POISON_SLOTS)
  ASAN_POISON_MEMORY_REGION(slot, sizeof(Cell));
#else
  static_cast<void>(slot);
#endif
}
void unpoison(void* slot) {
#if defined(VELMAR_2D_POISON_SLOTS)
  ASAN_UNPOISON_MEMORY_REGION(slot, sizeof(Cell));
#else
  static_cast<void>(slot);
#endif
}

/// Large slabs get huge pages, smaller ones all their pages at one go, where the system offers
/// that: cheaper than one by one at the first node of each.
void prepare_pages(void* memory, std::size_t bytes) {
#if defined(__linux__)
  if (bytes >= huge_page) {
    madvise(memory, bytes, MADV_HUGEPAGE);
    return;
  }
#if defined(MADV_POPULATE_WRITE)
  constexpr std::uintptr_t page = 4096;
  const auto address = reinterpret_cast<std::uintptr_t>(memory);
  const std::uintptr_t begin = (address + page - 1) / page * page,
                       end = (address + bytes) / page * page;
  if (begin < end) madvise(reinterpret_cast<void*>(begin), end - begin, MADV_POPULATE_WRITE);
#endif
#else
  static_cast<void>(memory);
  static_cast<void>(bytes);
#endif
}

void add_slab() {
  std::size_t bytes = std::clamp(bytes_in_slabs, smallest_slab, largest_slab);
  try {
    slabs.reserve(slabs.size() + 1);
  } catch (const std::bad_alloc&) {
    allocation_failed(bytes);
  }
  void* memory = ::operator new(bytes, alignment_of(bytes), std::nothrow);
  if (memory == nullptr && bytes > smallest_slab) {  // the last memory there is
    bytes = smallest_slab;
    memory = ::operator new(bytes, alignment_of(bytes), std::nothrow);
  }
  if (memory == nullptr) allocation_failed(sizeof(Cell));
  prepare_pages(memory, bytes);
  slabs.push_back({memory, bytes});
  bytes_in_slabs += bytes;
  unused_begin = static_cast<std::byte*>(memory);
  unused_end = unused_begin + bytes / sizeof(Cell) * sizeof(Cell);
  for (std::byte* slot = unused_begin; slot != unused_end; slot += sizeof(Cell)) poison(slot);
}

void* take_slot() {
  if (free_slots != nullptr) {
    FreeSlot* slot = free_slots;
    unpoison(slot);
    free_slots = slot->next;
    const auto later = reinterpret_cast<std::uintptr_t>(slot->later);
    for (std::size_t line = 0; line < sizeof(Cell); line += 64) {
      __builtin_prefetch(reinterpret_cast<const void*>(later + line), 1);
    }
    return slot;
  }
  if (unused_begin == unused_end) add_slab();
  std::byte* slot = unused_begin;
  unused_begin += sizeof(Cell);
  unpoison(slot);
  return slot;
}

void give_slot(void* memory) {
  FreeSlot*& earlier = recent_free_slots[nb_freed++ % slots_ahead];
  free_slots = new (memory) FreeSlot{free_slots, earlier};
  earlier = free_slots;
  poison(memory);
}

/// Needs: every node has been released.
void return_node_memory() {
  for (const Slab& slab : slabs) {
#if defined(VELMAR_2D_POISON_SLOTS)
    ASAN_UNPOISON_MEMORY_REGION(slab.memory, slab.bytes);
#endif
    ::operator delete(slab.memory, alignment_of(slab.bytes));
  }
  std::vector<Slab>().swap(slabs);
  unused_begin = unused_end = nullptr;
  free_slots = nullptr;
  recent_free_slots = {};
  bytes_in_slabs = 0;
}

}  // namespace

Cell* new_cell() {
  if (next_id == std::numeric_limits<std::int32_t>::max()) {
    fatal(
        "(velmar_2D:) ERROR: no identifier is left for a new node\n"
        "        (2147483646 nodes have been created by this process.)");
  }
  auto* c = new (take_slot()) Cell;
  if (n_cell_data > 0) {
    try {
      c->data.resize(static_cast<std::size_t>(n_cell_data));
    } catch (const std::bad_alloc&) {
      c->~Cell();
      give_slot(c);
      allocation_failed(static_cast<std::size_t>(n_cell_data) * sizeof(double));
    }
  }
  c->id = next_id++;
  ++nb_nodes;
  ++mesh_revision;
  return c;
}

void release_cell(Cell*& c) {
  if (c == nullptr) release_of_missing("c");
  c->~Cell();
  give_slot(c);
  c = nullptr;
  --nb_nodes;
  ++mesh_revision;
}

std::int32_t release_all_nodes() {
  if (lists_are_split()) join_sublists();
  std::int32_t nb_released = 0;
  while (mesh_beg != nullptr) {
    Cell* c = mesh_beg;
    mesh_beg = c->next;
    release_cell(c);
    ++nb_released;
  }
  mesh_end = nullptr;
  for (std::vector<Handle>* ends : {&level_beg, &level_end}) {
    std::fill(ends->begin(), ends->end(), Handle{});
  }
  return_node_memory();
  trail.forget();
  links_may_be_one_way = false;
  return nb_released;
}

}  // namespace velmar_2d::detail
