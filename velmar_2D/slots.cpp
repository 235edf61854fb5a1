// Where nodes lie in memory.
//
//     slab:   head | records of the blocks |  block  |  block  | ...
//     block:  32 slots, each for one node; its record has a bit for each
//
// Walks wait for the memory more than for anything else, and least where the nodes of a list lie
// one behind the other. A stretch of the list takes its new nodes at one end, so that each stretch
// fills a block of its own from front to back.
//
// For the order to last, blocks should lose their nodes together. One that is refilled wherever it
// has a hole holds nodes from everywhere, which go at different times, and soon no block is ever
// empty again. So the emptiest blocks are filled first, and where only full ones are left, a mesh
// that has changed much may have some slots more than it needs.
#include "velmar_2D/slots.hpp"

#include <bit>
#include <new>

#include "velmar_2D/internal.hpp"

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
/// All begin at multiples of the largest size, so that a slot's address tells its slab.
constexpr std::size_t smallest_slab = std::size_t{1} << 16, largest_slab = std::size_t{1} << 22;
constexpr std::size_t huge_page = std::size_t{1} << 21;
constexpr std::align_val_t slab_alignment{largest_slab};

constexpr std::size_t slots_per_block = 32;
constexpr std::size_t block_bytes = slots_per_block * sizeof(Cell);

/// What is known of a block. It is in the list of its kind, unless it is open or full.
struct Block {
  std::uint32_t free = 0;  ///< a bit for each slot
  std::uint8_t nb_free = 0;
  std::uint8_t nb_slots = 0;  ///< fewer where the slab's head takes the first ones
  bool open = false;          ///< new nodes are placed here
  Block *prev = nullptr, *next = nullptr;
};

/// Kinds of blocks: 0 to 3 by the quarters of their slots that are free, and entirely empty ones.
constexpr std::size_t slots_per_quarter = slots_per_block / 4, half_free = 2, empty_kind = 4;
constexpr std::size_t nb_kinds = 5;

std::size_t kind_of(const Block& block) {
  return block.nb_free == block.nb_slots ? empty_kind : block.nb_free / slots_per_quarter;
}

/// Blocks in a ring, through a head that is none.
class BlockList {
 public:
  bool empty() const { return head_.next == &head_; }
  Block& front() const { return *head_.next; }
  void append(Block& block) {
    block.prev = head_.prev;
    block.next = &head_;
    block.prev->next = block.next->prev = &block;
  }
  static void remove(Block& block) {
    block.prev->next = block.next;
    block.next->prev = block.prev;
  }
  void clear() { head_.prev = head_.next = &head_; }

 private:
  Block head_{0, 0, 0, false, &head_, &head_};
};

struct SlabHead {
  SlabHead* next;
  std::size_t bytes;
  std::size_t nb_blocks() const { return bytes / block_bytes; }
};
constexpr std::size_t records_offset = 64;
static_assert(sizeof(SlabHead) <= records_offset && records_offset % alignof(Block) == 0);

SlabHead* slabs = nullptr;
std::size_t bytes_in_slabs = 0;
std::int64_t nb_slots = 0;
std::int64_t nb_given = 0;  ///< how often a slot has been given back
std::array<BlockList, nb_kinds> blocks;

/// Where the next node of a stretch goes. Few meshes have so many stretches that two share a block.
std::array<Block*, 64> open_blocks{};

/// Slots that hold no node must not be read: a sanitizer build notices a stale reference.
void poison([[maybe_unused]] void* slot) {
#if defined(VELMAR_2D_POISON_SLOTS)
  ASAN_POISON_MEMORY_REGION(slot, sizeof(Cell));
#endif
}
void unpoison([[maybe_unused]] void* memory, [[maybe_unused]] std::size_t bytes) {
#if defined(VELMAR_2D_POISON_SLOTS)
  ASAN_UNPOISON_MEMORY_REGION(memory, bytes);
#endif
}

std::byte* slab_of(const void* inside) {
  constexpr auto offset_bits = std::uintptr_t{largest_slab - 1};
  return reinterpret_cast<std::byte*>(reinterpret_cast<std::uintptr_t>(inside) & ~offset_bits);
}
Block* records_of(std::byte* slab) { return reinterpret_cast<Block*>(slab + records_offset); }

std::byte* slots_of(Block& block) {
  std::byte* slab = slab_of(&block);
  return slab + static_cast<std::size_t>(&block - records_of(slab)) * block_bytes;
}

/// Large slabs get huge pages, smaller ones all their pages at one go, where the system offers
/// that: cheaper than one by one at the first node of each.
void prepare_pages([[maybe_unused]] void* memory, [[maybe_unused]] std::size_t bytes) {
#if defined(__linux__)
  if (bytes >= huge_page) {
    madvise(memory, bytes, MADV_HUGEPAGE);
    return;
  }
#if defined(MADV_POPULATE_WRITE)
  madvise(memory, bytes, MADV_POPULATE_WRITE);
#endif
#endif
}

/// False where there is no more memory.
bool add_slab() {
  std::size_t bytes = std::clamp(bytes_in_slabs, smallest_slab, largest_slab);
  void* memory = ::operator new(bytes, slab_alignment, std::nothrow);
  if (memory == nullptr && bytes > smallest_slab) {  // the last memory there is
    bytes = smallest_slab;
    memory = ::operator new(bytes, slab_alignment, std::nothrow);
  }
  if (memory == nullptr) return false;
  prepare_pages(memory, bytes);
  bytes_in_slabs += bytes;

  slabs = new (memory) SlabHead{slabs, bytes};
  auto* slab = static_cast<std::byte*>(memory);
  const std::size_t head_bytes = records_offset + slabs->nb_blocks() * sizeof(Block);
  const std::size_t nb_taken = (head_bytes + sizeof(Cell) - 1) / sizeof(Cell);
  for (std::size_t b = 0; b < slabs->nb_blocks(); ++b) {
    const std::size_t begin = b * slots_per_block, end = begin + slots_per_block;
    auto* block = new (records_of(slab) + b) Block;
    for (std::size_t slot = std::max(begin, nb_taken); slot < end; ++slot) {
      block->free |= std::uint32_t{1} << (slot - begin);
      ++block->nb_slots;
      poison(slab + slot * sizeof(Cell));
    }
    block->nb_free = block->nb_slots;
    nb_slots += block->nb_slots;
    if (block->nb_slots > 0) blocks[empty_kind].append(*block);
  }
  return true;
}

/// The block behind this one, if it is empty.
Block* empty_successor(Block& block) {
  std::byte* slab = slab_of(&block);
  Block* end = records_of(slab) + reinterpret_cast<SlabHead*>(slab)->nb_blocks();
  Block* next = &block + 1;
  return next != end && !next->open && kind_of(*next) == empty_kind ? next : nullptr;
}

/// Whether there are as many free slots as a mesh may have that is not short of them: a sixteenth
/// of those that were given back so far, and an eighth of the mesh at most.
bool has_room_to_spare() {
  return nb_slots >= nb_nodes + std::min(nb_given / 16, std::int64_t{nb_nodes} / 8);
}

/// The blocks to fill next: none where there is no memory either.
const BlockList& blocks_to_fill() {
  std::size_t kind = empty_kind;
  while (kind > 0 && blocks[kind].empty()) --kind;
  if (kind >= half_free || (!blocks[kind].empty() && has_room_to_spare())) return blocks[kind];
  return blocks[add_slab() ? empty_kind : kind];
}

/// The last free slots are in blocks that other stretches fill. Ends the process where there are
/// none.
Block& block_of_another_stretch() {
  for (Block*& block : open_blocks) {
    if (block != nullptr && block->nb_free > 0) return *std::exchange(block, nullptr);
  }
  allocation_failed(sizeof(Cell));
}

/// An open block with free slots, at best behind the one that has just been filled.
Block& open_block(Block* filled) {
  Block* block = filled == nullptr ? nullptr : empty_successor(*filled);
  if (block == nullptr) {
    const BlockList& list = blocks_to_fill();
    if (list.empty()) return block_of_another_stretch();
    block = &list.front();
  }
  BlockList::remove(*block);
  block->open = true;
  return *block;
}

}  // namespace

void* take_slot(std::int32_t stretch) {
  Block*& block = open_blocks[static_cast<std::size_t>(stretch) % open_blocks.size()];
  if (block == nullptr || block->nb_free == 0) {
    Block* filled = std::exchange(block, nullptr);
    if (filled != nullptr) filled->open = false;
    block = &open_block(filled);
  }
  std::byte* slot =
      slots_of(*block) + static_cast<std::size_t>(std::countr_zero(block->free)) * sizeof(Cell);
  block->free &= block->free - 1;
  --block->nb_free;

  // A node is written as a whole: ask for the memory of one of the next.
  constexpr std::size_t slots_ahead = 2, line = 64;
  for (std::size_t offset = 0; offset < sizeof(Cell); offset += line) {
    __builtin_prefetch(slot + slots_ahead * sizeof(Cell) + offset, 1);
  }
  unpoison(slot, sizeof(Cell));
  return slot;
}

void give_slot(void* slot) {
  std::byte* slab = slab_of(slot);
  const auto index = static_cast<std::size_t>(static_cast<std::byte*>(slot) - slab) / sizeof(Cell);
  Block& block = records_of(slab)[index / slots_per_block];
  poison(slot);
  ++nb_given;

  const bool was_full = block.nb_free == 0;
  const std::size_t old_kind = kind_of(block);
  block.free |= std::uint32_t{1} << index % slots_per_block;
  ++block.nb_free;
  if (block.open) return;
  const std::size_t kind = kind_of(block);
  if (!was_full) {
    if (kind == old_kind) return;
    BlockList::remove(block);
  }
  blocks[kind].append(block);
}

void return_slots() {
  while (slabs != nullptr) {
    SlabHead* slab = slabs;
    slabs = slab->next;
    unpoison(slab, slab->bytes);
    ::operator delete(slab, slab_alignment);
  }
  for (BlockList& list : blocks) list.clear();
  open_blocks = {};
  bytes_in_slabs = 0;
  nb_slots = nb_given = 0;
}

}  // namespace velmar_2d::detail
