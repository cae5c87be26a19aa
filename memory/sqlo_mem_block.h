// Blocks of memory pools: the header before a block, and what lies between blocks.
//
// A subgroup is a run of chunks of one pool. Behind its own header of 40 bytes blocks stand without a gap to its end:
//
//     subgroup | header block | header block | ... | 8 bytes
//
// What a block takes up (its stride: header, contents, what rounds it up) is a multiple of 16 and follows from its
// header alone, so that the blocks of a subgroup can be walked from the first to the last. The first eight bytes of a
// header, kind and size, change in one store, and always so that the walk stays possible: whoever is killed at any
// instruction leaves blocks from which everything else is made anew.
//
// Addresses of blocks fit in 32 bits where they stand in memory: a set lies inside one window of 4 GiB.
#pragma once

#include <bit>
#include <cstdint>

#include "platform/address_windows.h"
#include "veksys/memory/pool.h"

// Under AddressSanitizer free blocks and gaps are poisoned; the functions that read and write headers may touch them.
#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#define VEK_MAY_TOUCH_POISONED __attribute__((no_sanitize("address"), noinline))
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#include <sanitizer/asan_interface.h>
#define VEK_MAY_TOUCH_POISONED __attribute__((no_sanitize("address"), noinline))
#endif
#endif
#ifndef VEK_MAY_TOUCH_POISONED
#define VEK_MAY_TOUCH_POISONED
#define ASAN_POISON_MEMORY_REGION(address, bytes) (static_cast<void>(address), static_cast<void>(bytes))
#define ASAN_UNPOISON_MEMORY_REGION(address, bytes) (static_cast<void>(address), static_cast<void>(bytes))
#endif

// Chunks of one pool, where blocks are carved, or kept whole.
struct SqloMemSubgroup {
  SQLO_MEM_POOL* pool;  // first: a block's chunk reference leads here
  SqloMemSubgroup* next;
  SqloMemSubgroup* previous;
  std::uint32_t eyeCatcher;
  std::uint32_t chunks;
  std::uint32_t reference;  // of its blocks
  std::uint32_t base;       // lower half of the address of the base pool
};
static_assert(sizeof(SqloMemSubgroup) == 40);

namespace vek {

inline constexpr std::uint32_t MEM_SUBGROUP_EYE_CATCHER = 0x47425355;  // "USBG" in memory

// ---- the header
// 4 bits of the code are flags. Kinds of blocks:
inline constexpr std::uint32_t BLOCK_USED = 0xE4DCAFE0;
inline constexpr std::uint32_t BLOCK_FREE = 0xE4DCAF10;  // joined with its free neighbours
inline constexpr std::uint32_t BLOCK_KEPT = 0xE4DCAF20;  // freed, kept as it is for fast reuse
inline constexpr std::uint32_t BLOCK_OWN = 0xE4DCAF30;   // of the pool itself: control blocks

inline constexpr std::uint32_t BLOCK_FLAGS = 0xF;
inline constexpr std::uint32_t BLOCK_SLACK = 0x1;    // 16 bytes longer than its size asks for
inline constexpr std::uint32_t BLOCK_GUARDED = 0x2;  // with a guard behind it
inline constexpr std::uint32_t BLOCK_NAMED =
    0x4;  // kept by a thread: its place is the line and the address of the name

inline constexpr std::uint32_t CHUNK_REFERENCE_MARKER = 0xFAB00000;
inline constexpr std::uint32_t CHUNK_REFERENCE_MASK = 0xFFF00000;

inline constexpr std::uint32_t BLOCK_LEAST_STRIDE = 32;
inline constexpr std::uint32_t BLOCK_GUARD_BYTES = 16;
inline constexpr std::uint32_t BLOCK_FIRST_OFFSET = 64;  // of the first block of a subgroup

struct BlockHeader {
  std::uint32_t code;  // kind and flags
  std::uint32_t size;  // asked for; of a free block what would fit
  std::uint32_t file;  // name of the file that allocated or freed it, as a key (regionTextKey)
  std::uint16_t line;
  std::uint16_t sequence;
  std::uint32_t chunk;  // marker and page of the subgroup
  std::uint32_t link;   // of kept blocks: the next one
};
static_assert(sizeof(BlockHeader) == SQLO_BLOCK_HEADER_BYTES);

// Who allocates or frees.
struct BlockPlace {
  std::uint32_t file;
  std::uint32_t line;
};

// A block: the address that callers have.
using Block = std::uint64_t;

// What stands at an address.
template <class T>
T* pointerAs(std::uint64_t address) noexcept {
  return reinterpret_cast<T*>(address);  // NOLINT(performance-no-int-to-ptr): addresses are what this is about
}

constexpr Block windowOf(std::uint64_t address) noexcept { return address & ~(ADDRESS_WINDOW_BYTES - 1); }
constexpr std::uint32_t shortOf(Block block) noexcept { return static_cast<std::uint32_t>(block); }
inline Block blockOf(const void* address) noexcept { return reinterpret_cast<std::uintptr_t>(address); }
inline void* pointerTo(Block block) noexcept { return pointerAs<void>(block); }
inline BlockHeader* headerOf(Block block) noexcept { return pointerAs<BlockHeader>(block) - 1; }

constexpr std::uint32_t kindOf(std::uint32_t code) noexcept { return code & ~BLOCK_FLAGS; }
constexpr bool isBlockKind(std::uint32_t kind) noexcept {
  return kind == BLOCK_USED || kind == BLOCK_FREE || kind == BLOCK_KEPT || kind == BLOCK_OWN;
}

constexpr std::uint32_t strideFor(std::uint32_t bytes) noexcept {
  return (bytes + SQLO_BLOCK_HEADER_BYTES + SQLO_BLOCK_ALIGNMENT - 1) & ~(SQLO_BLOCK_ALIGNMENT - 1);
}
constexpr std::uint32_t strideFor(std::uint64_t bytes) noexcept {
  return static_cast<std::uint32_t>((bytes + SQLO_BLOCK_HEADER_BYTES + SQLO_BLOCK_ALIGNMENT - 1) &
                                    ~std::uint64_t{SQLO_BLOCK_ALIGNMENT - 1});
}
constexpr std::uint32_t strideOf(std::uint32_t code, std::uint32_t size) noexcept {
  return strideFor(std::uint64_t{size} + ((code & BLOCK_GUARDED) != 0 ? BLOCK_GUARD_BYTES : 0)) +
         ((code & BLOCK_SLACK) != 0 ? SQLO_BLOCK_ALIGNMENT : 0);
}

VEK_MAY_TOUCH_POISONED inline BlockHeader readHeader(Block block) noexcept { return *headerOf(block); }
VEK_MAY_TOUCH_POISONED inline std::uint32_t codeOf(Block block) noexcept {
  return __atomic_load_n(&headerOf(block)->code, __ATOMIC_RELAXED);
}
VEK_MAY_TOUCH_POISONED inline std::uint32_t strideOf(Block block) noexcept {
  return strideOf(__atomic_load_n(&headerOf(block)->code, __ATOMIC_RELAXED),
                  __atomic_load_n(&headerOf(block)->size, __ATOMIC_RELAXED));
}
VEK_MAY_TOUCH_POISONED inline std::uint32_t sizeOf(Block block) noexcept {
  return __atomic_load_n(&headerOf(block)->size, __ATOMIC_RELAXED);
}
VEK_MAY_TOUCH_POISONED inline std::uint32_t linkOf(Block block) noexcept {
  return __atomic_load_n(&headerOf(block)->link, __ATOMIC_RELAXED);
}
VEK_MAY_TOUCH_POISONED inline void setLink(Block block, std::uint32_t link) noexcept { headerOf(block)->link = link; }

// What a block becomes, in one store.
VEK_MAY_TOUCH_POISONED inline void setState(Block block, std::uint32_t code, std::uint32_t size) noexcept {
  __atomic_store_n(pointerAs<std::uint64_t>(block - SQLO_BLOCK_HEADER_BYTES), std::uint64_t{size} << 32 | code,
                   __ATOMIC_RELEASE);
}
VEK_MAY_TOUCH_POISONED inline void setPlace(Block block, BlockPlace place, std::uint32_t sequence) noexcept {
  __atomic_store_n(pointerAs<std::uint64_t>(block - SQLO_BLOCK_HEADER_BYTES + offsetof(BlockHeader, file)),
                   place.file | std::uint64_t{place.line & 0xFFFFU} << 32 | std::uint64_t{sequence & 0xFFFFU} << 48,
                   __ATOMIC_RELAXED);
}
// For blocks that one thread has alone: nobody else changes them, nobody walks by, and the fewer instructions the
// better.
VEK_MAY_TOUCH_POISONED inline std::uint32_t sizeAlone(Block block) noexcept { return headerOf(block)->size; }
VEK_MAY_TOUCH_POISONED inline std::uint32_t linkAlone(Block block) noexcept { return headerOf(block)->link; }
VEK_MAY_TOUCH_POISONED inline void setUsedAlone(Block block, std::uint32_t size, BlockPlace place,
                                                std::uint32_t sequence) noexcept {
  BlockHeader& header = *headerOf(block);
  __atomic_store_n(&header.code, BLOCK_USED, __ATOMIC_RELAXED);  // the owner of a neighbour looks at it
  __atomic_store_n(&header.size, size, __ATOMIC_RELAXED);        // stores of their own: no vector is put together
  __atomic_store_n(&header.file, place.file, __ATOMIC_RELAXED);
  header.line = static_cast<std::uint16_t>(place.line);
  header.sequence = static_cast<std::uint16_t>(sequence);
}
VEK_MAY_TOUCH_POISONED inline void setKeptAlone(Block block, std::uint32_t next, const char* file,
                                                std::uint32_t line) noexcept {
  BlockHeader& header = *headerOf(block);
  __atomic_store_n(&header.code, BLOCK_KEPT | BLOCK_NAMED, __ATOMIC_RELAXED);
  const auto name = reinterpret_cast<std::uintptr_t>(file);
  __builtin_memcpy(&header.file, &name, sizeof name);
  header.sequence = static_cast<std::uint16_t>(line);  // addresses have 47 bits
  header.link = next;
}

// The file of a block that is NAMED, and the line.
inline const char* namedFileOf(const BlockHeader& header, std::uint32_t* line) noexcept {
  std::uint64_t place;
  __builtin_memcpy(&place, &header.file, sizeof place);
  *line = header.sequence;
  return pointerAs<const char>(place & 0xFFFF'FFFF'FFFFU);
}

VEK_MAY_TOUCH_POISONED inline void setChunk(Block block, std::uint32_t reference) noexcept {
  headerOf(block)->chunk = reference;
}

// Makes a free block of what is given, in front of or behind others: its state last.
inline void makeFree(Block block, std::uint32_t stride, std::uint32_t reference) noexcept {
  setChunk(block, reference);
  setLink(block, 0);
  setState(block, BLOCK_FREE, stride - SQLO_BLOCK_HEADER_BYTES);
}

// Memory that processes share is left alone: one process does not see what another one poisoned or freed.
constexpr bool isPoisonable(Block block) noexcept {
  return block >= PRIVATE_WINDOWS.begin && block < PRIVATE_WINDOWS.end();
}
inline void poison(Block block, std::uint32_t stride) noexcept {
  if (isPoisonable(block)) ASAN_POISON_MEMORY_REGION(pointerTo(block - SQLO_BLOCK_HEADER_BYTES), stride);
}
inline void unpoison(Block block, std::uint64_t bytes) noexcept {
  if (isPoisonable(block)) ASAN_UNPOISON_MEMORY_REGION(pointerTo(block), bytes);
}

// ---- subgroups
inline SqloMemSubgroup* subgroupOf(Block block, std::uint32_t reference) noexcept {
  return pointerAs<SqloMemSubgroup>(windowOf(block) | (reference & ~CHUNK_REFERENCE_MASK) << 12);
}
inline Block firstBlock(const SqloMemSubgroup* subgroup) noexcept { return blockOf(subgroup) + BLOCK_FIRST_OFFSET; }
// Where the block behind the last one would begin.
inline Block endBlock(const SqloMemSubgroup* subgroup) noexcept {
  return blockOf(subgroup) + (std::uint64_t{subgroup->chunks} << SQLO_CHUNK_SHIFT) + SQLO_BLOCK_ALIGNMENT;
}
inline std::uint32_t strideOfAll(const SqloMemSubgroup* subgroup) noexcept {
  return static_cast<std::uint32_t>(endBlock(subgroup) - firstBlock(subgroup));
}
// Chunks that hold one block of such a stride.
constexpr std::uint32_t chunksFor(std::uint64_t stride) noexcept {
  return sqloChunksOf(stride + BLOCK_FIRST_OFFSET - SQLO_BLOCK_ALIGNMENT);
}

// Visits the blocks of a subgroup in order: visit(block, header). Answers false when one is no block or ends beyond the
// end, or when `visit` does.
template <class Visit>
bool visitBlocks(const SqloMemSubgroup* subgroup, Visit visit) noexcept {
  const Block end = endBlock(subgroup);
  for (Block block = firstBlock(subgroup); block != end;) {
    const BlockHeader header = readHeader(block);
    const std::uint32_t stride = strideOf(header.code, header.size);
    if (!isBlockKind(kindOf(header.code)) || stride > end - block || !visit(block, header)) return false;
    block += stride;
  }
  return true;
}

}  // namespace vek
