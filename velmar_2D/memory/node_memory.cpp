// Where nodes lie in memory.
//
//     slab:   head | records of the blocks |  block  |  block  | ...
//     block:  64 slots, each for one node; its record has a bit for each
//
// Walks wait for the memory more than for anything else, and least where the nodes of a list lie
// one behind the other. A stretch of the list takes its new nodes at one end, so that each stretch
// fills a block of its own from front to back.
//
// For the order to last, blocks should lose their nodes together. One that is refilled wherever it
// has a hole holds nodes from everywhere, which go at different times, and soon no block is ever
// empty again. So the emptiest blocks are filled first, and where only full ones are left, a mesh
// that has changed much may have some slots more than it needs.
#include <bit>
#include <new>

#include "velmar_2D/memory/memory.hpp"

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
constexpr std::align_val_t slab_alignment{largest_slab};

}  // namespace

/// What is known of a block. It is in the list of its kind, unless it is open or full.
struct NodeBlock {
  std::uint64_t free = 0;  ///< a bit for each slot
  std::uint8_t nb_free = 0;
  std::uint8_t nb_slots = 0;  ///< fewer where the slab's head takes the first ones
  bool open = false;          ///< new nodes are placed here
  NodeBlock *prev = nullptr, *next = nullptr;
};

struct NodeSlab {
  NodeSlab* next;
  std::size_t bytes;
  std::size_t nb_blocks() const { return bytes / block_bytes; }
};

namespace {

/// Kinds of blocks: 0 to 3 by the quarters of their slots that are free, and entirely empty ones.
constexpr std::size_t slots_per_quarter = slots_per_block / 4, half_free = 2, empty_kind = 4;

std::size_t kind_of(const NodeBlock& block) {
  return block.nb_free == block.nb_slots ? empty_kind : block.nb_free / slots_per_quarter;
}

constexpr std::size_t records_offset = 64;
static_assert(sizeof(NodeSlab) <= records_offset && records_offset % alignof(NodeBlock) == 0);

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
NodeBlock* records_of(std::byte* slab) {
  return reinterpret_cast<NodeBlock*>(slab + records_offset);
}

std::byte* slots_of(NodeBlock& block) {
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

/// The slots of a block that hold nodes, a bit for each.
std::uint64_t taken_slots_of(const NodeBlock& block) {
  return block.nb_slots == 0
             ? 0
             : ~block.free & ~std::uint64_t{0} << (slots_per_block - block.nb_slots);
}

/// The node in a slot of a slab, if there is one.
Cell* node_in(NodeSlab* slab, std::size_t slot) {
  auto* memory = reinterpret_cast<std::byte*>(slab);
  if (slot >= slab->bytes / sizeof(Cell)) return nullptr;
  const std::uint64_t taken = taken_slots_of(records_of(memory)[slot / slots_per_block]);
  if ((taken >> slot % slots_per_block & 1) == 0) return nullptr;
  return reinterpret_cast<Cell*>(memory + slot * sizeof(Cell));
}

/// The block behind this one, if it is empty.
NodeBlock* empty_successor(NodeBlock& block) {
  std::byte* slab = slab_of(&block);
  NodeBlock* end = records_of(slab) + reinterpret_cast<NodeSlab*>(slab)->nb_blocks();
  NodeBlock* next = &block + 1;
  return next != end && !next->open && kind_of(*next) == empty_kind ? next : nullptr;
}

}  // namespace

NodeMemory::NodeMemory() = default;
NodeMemory::~NodeMemory() { release_all(); }

void NodeMemory::append(Blocks& list, NodeBlock& block) {
  block.prev = list.last;
  block.next = nullptr;
  (list.last != nullptr ? list.last->next : list.first) = &block;
  list.last = &block;
}

void NodeMemory::remove(Blocks& list, NodeBlock& block) {
  (block.prev != nullptr ? block.prev->next : list.first) = block.next;
  (block.next != nullptr ? block.next->prev : list.last) = block.prev;
}

/// False where there is no more memory.
bool NodeMemory::add_slab() {
  std::size_t bytes = std::clamp(bytes_in_slabs_, smallest_slab, largest_slab);
  void* memory = ::operator new(bytes, slab_alignment, std::nothrow);
  if (memory == nullptr && bytes > smallest_slab) {  // the last memory there is
    bytes = smallest_slab;
    memory = ::operator new(bytes, slab_alignment, std::nothrow);
  }
  if (memory == nullptr) return false;
  prepare_pages(memory, bytes);
  bytes_in_slabs_ += bytes;

  slabs_ = new (memory) NodeSlab{slabs_, bytes};
  auto* slab = static_cast<std::byte*>(memory);
  const std::size_t head_bytes = records_offset + slabs_->nb_blocks() * sizeof(NodeBlock);
  const std::size_t nb_taken = (head_bytes + sizeof(Cell) - 1) / sizeof(Cell);
  for (std::size_t b = 0; b < slabs_->nb_blocks(); ++b) {
    const std::size_t begin = b * slots_per_block, end = begin + slots_per_block;
    auto* block = new (records_of(slab) + b) NodeBlock;
    for (std::size_t slot = std::max(begin, nb_taken); slot < end; ++slot) {
      block->free |= std::uint64_t{1} << (slot - begin);
      ++block->nb_slots;
      poison(slab + slot * sizeof(Cell));
    }
    block->nb_free = block->nb_slots;
    nb_slots_ += block->nb_slots;
    if (block->nb_slots > 0) append(blocks_[empty_kind], *block);
  }
  return true;
}

/// Whether there are as many free slots as a mesh may have that is not short of them: a sixteenth
/// of those that were given back so far, and an eighth of the mesh at most.
bool NodeMemory::has_room_to_spare() const {
  return nb_slots_ >= nb_taken_ + std::min(nb_given_ / 16, nb_taken_ / 8);
}

/// The blocks to fill next: none where there is no memory either.
NodeMemory::Blocks& NodeMemory::blocks_to_fill() {
  std::size_t kind = empty_kind;
  while (kind > 0 && blocks_[kind].first == nullptr) --kind;
  const bool found = blocks_[kind].first != nullptr;
  if (kind >= half_free || (found && has_room_to_spare())) return blocks_[kind];
  return blocks_[add_slab() ? empty_kind : kind];
}

/// The last free slots are in blocks that other stretches fill. nullptr where there are none.
NodeBlock* NodeMemory::block_of_another_stretch() {
  for (NodeBlock*& block : open_blocks_) {
    if (block != nullptr && block->nb_free > 0) return std::exchange(block, nullptr);
  }
  return nullptr;
}

/// An open block with free slots, at best behind the one that has just been filled.
NodeBlock* NodeMemory::open_block(NodeBlock* filled) {
  NodeBlock* block = filled == nullptr ? nullptr : empty_successor(*filled);
  if (block == nullptr) {
    const Blocks& blocks = blocks_to_fill();
    if (blocks.first == nullptr) return block_of_another_stretch();
    block = blocks.first;
  }
  remove(blocks_[kind_of(*block)], *block);
  block->open = true;
  return block;
}

void* NodeMemory::take(std::int32_t stretch) {
  NodeBlock*& block = open_blocks_[static_cast<std::size_t>(stretch) % open_blocks_.size()];
  if (block == nullptr || block->nb_free == 0) {
    NodeBlock* filled = std::exchange(block, nullptr);
    if (filled != nullptr) filled->open = false;
    block = open_block(filled);
    if (block == nullptr) return nullptr;
  }
  std::byte* slot =
      slots_of(*block) + static_cast<std::size_t>(std::countr_zero(block->free)) * sizeof(Cell);
  block->free &= block->free - 1;
  --block->nb_free;
  ++nb_taken_;

  // A node is written as a whole: prefetch one of the next.
  constexpr std::size_t slots_ahead = 2;
  for (std::size_t offset = 0; offset < sizeof(Cell); offset += cache_line) {
    prefetch_to_write(slot + slots_ahead * sizeof(Cell) + offset);
  }
  unpoison(slot, sizeof(Cell));
  return slot;
}

void NodeMemory::give_back(void* slot) {
  std::byte* slab = slab_of(slot);
  const auto index = static_cast<std::size_t>(static_cast<std::byte*>(slot) - slab) / sizeof(Cell);
  NodeBlock& block = records_of(slab)[index / slots_per_block];
  poison(slot);
  --nb_taken_;
  ++nb_given_;

  const bool was_full = block.nb_free == 0;
  const std::size_t old_kind = kind_of(block);
  block.free |= std::uint64_t{1} << index % slots_per_block;
  ++block.nb_free;
  if (block.open) return;
  const std::size_t kind = kind_of(block);
  if (!was_full) {
    if (kind == old_kind) return;
    remove(blocks_[old_kind], block);
  }
  append(blocks_[kind], block);
}

std::vector<Cell*> NodeMemory::nodes_in(std::span<const std::uint32_t> slots) const {
  const auto first_slot = [](NodeSlab* slab) {
    return TraversalHistory::entry_of(reinterpret_cast<const Cell*>(slab));
  };
  std::vector<NodeSlab*> slabs;
  for (NodeSlab* slab = slabs_; slab != nullptr; slab = slab->next) slabs.push_back(slab);
  std::sort(slabs.begin(), slabs.end(),
            [&](NodeSlab* a, NodeSlab* b) { return first_slot(a) < first_slot(b); });
  std::vector<Cell*> nodes;
  nodes.reserve(slots.size());
  for (const std::uint32_t slot : slots) {
    const auto after =
        std::upper_bound(slabs.begin(), slabs.end(), slot,
                         [&](std::uint32_t s, NodeSlab* slab) { return s < first_slot(slab); });
    Cell* c = after == slabs.begin() ? nullptr : node_in(after[-1], slot - first_slot(after[-1]));
    if (c == nullptr) return {};
    nodes.push_back(c);
  }
  return nodes;
}

std::vector<TakenSlots> NodeMemory::taken_slots() const {
  std::vector<TakenSlots> taken;
  for (NodeSlab* slab = slabs_; slab != nullptr; slab = slab->next) {
    auto* memory = reinterpret_cast<std::byte*>(slab);
    const std::uintptr_t first = reinterpret_cast<std::uintptr_t>(slab) / block_bytes;
    for (std::size_t b = 0; b < slab->nb_blocks(); ++b) {
      const NodeBlock& block = records_of(memory)[b];
      if (kind_of(block) == empty_kind) continue;
      taken.push_back({first + b, taken_slots_of(block)});
    }
  }
  return taken;
}

void NodeMemory::release_empty_slabs() {
  for (NodeSlab** at = &slabs_; *at != nullptr;) {
    NodeSlab* slab = *at;
    const std::span blocks(records_of(reinterpret_cast<std::byte*>(slab)), slab->nb_blocks());
    if (std::any_of(blocks.begin(), blocks.end(),
                    [](const NodeBlock& block) { return kind_of(block) != empty_kind; })) {
      at = &slab->next;
      continue;
    }
    for (NodeBlock& block : blocks) {
      nb_slots_ -= block.nb_slots;
      if (block.open) {
        std::replace(open_blocks_.begin(), open_blocks_.end(), &block,
                     static_cast<NodeBlock*>(nullptr));
      } else if (block.nb_slots > 0) {
        remove(blocks_[empty_kind], block);
      }
    }
    bytes_in_slabs_ -= slab->bytes;
    *at = slab->next;
    unpoison(slab, slab->bytes);
    ::operator delete(slab, slab_alignment);
  }
}

void NodeMemory::release_all() {
  while (slabs_ != nullptr) {
    NodeSlab* slab = slabs_;
    slabs_ = slab->next;
    unpoison(slab, slab->bytes);
    ::operator delete(slab, slab_alignment);
  }
  blocks_ = {};
  open_blocks_ = {};
  bytes_in_slabs_ = 0;
  nb_slots_ = nb_taken_ = nb_given_ = 0;
}

}  // namespace velmar_2d::detail
