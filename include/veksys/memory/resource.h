// A memory pool as the memory resource of the containers of the C++ library.
//
//   VekMemoryResource resource(pool);
//   std::pmr::vector<int> numbers(&resource);
//
// A resource refers to a pool, which must outlive it and everything allocated through it. It may be shared by threads
// as the pool may (not one of SQLO_POOL_UNLATCHED). Blocks are noted with the place where the resource was made: that
// is what a report of leaks tells.
//
// Allocating throws std::bad_alloc when the pool answers a code. What is given back and is no block of this pool is
// reported in the diagnostic log and stays as it is (sqloMemPoolFreeOf).
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory_resource>
#include <new>

#include "veksys/memory/pool.h"

// The adaptor: two resources are equal when they are over the same pool.
class VekMemoryResource : public std::pmr::memory_resource {
 public:
  // Over a pool, which it does not own; a wrong handle makes every allocation throw. `file` and `line` are noted with
  // each block, by default those of the caller.
  explicit VekMemoryResource(SQLO_MEM_POOL* pool, const char* file = __builtin_FILE(),
                             std::uint32_t line = __builtin_LINE()) noexcept
      : pool_(pool), file_(file), line_(line) {}

  // The pool that it was made over.
  SQLO_MEM_POOL* pool() const noexcept { return pool_; }

 private:
  // Blocks are aligned to SQLO_BLOCK_ALIGNMENT. For more, a larger block is taken, and where it begins is noted in
  // front of what is handed out.
  void* do_allocate(std::size_t bytes, std::size_t alignment) override {
    if (alignment <= SQLO_BLOCK_ALIGNMENT) return take(bytes == 0 ? 1 : bytes);
    if (bytes > SIZE_MAX - alignment) throw std::bad_alloc();
    void* const block = take(bytes + alignment);
    const auto begin = reinterpret_cast<std::uintptr_t>(block);
    const std::uintptr_t aligned = (begin + alignment) & ~(std::uintptr_t{alignment} - 1);
    auto* const handedOut = static_cast<char*>(block) + (aligned - begin);
    std::memcpy(handedOut - sizeof block, &block, sizeof block);
    return handedOut;
  }

  void do_deallocate(void* handedOut, std::size_t /*bytes*/, std::size_t alignment) override {
    void* block = handedOut;
    if (alignment > SQLO_BLOCK_ALIGNMENT)
      std::memcpy(&block, static_cast<char*>(handedOut) - sizeof block, sizeof block);
    (void)sqloMemPoolFreeOf(pool_, block, file_, line_);  // reports what it refuses
  }

  bool do_is_equal(const std::pmr::memory_resource& other) const noexcept override {
    const auto* resource = dynamic_cast<const VekMemoryResource*>(&other);
    return resource != nullptr && resource->pool_ == pool_;
  }

  void* take(std::size_t bytes) {
    void* block = nullptr;
    if (sqloMemPoolAllocate(pool_, bytes, 0, file_, line_, &block) != 0) throw std::bad_alloc();
    return block;
  }

  SQLO_MEM_POOL* pool_;
  const char* file_;
  std::uint32_t line_;
};
