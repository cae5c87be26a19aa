// The index: which packages and names the file has, by hash, shared by all processes of the engine.
//
// An open-addressing table of (key, first line) in memory that every process maps. Entries are only ever added, so no
// reader or writer waits for another:
//
//   1. A key goes from 0 to its value by one compare-and-swap and never changes again.
//   2. The line is kept as its distance from the highest number and only grows. So the lowest line that anyone
//      inserted wins, whatever the order of the processes.
//
// A process that dies between the two leaves a key without a line, which reads as not there.
#pragma once

#include <veksys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace demo {

// A key: 64 bits of hash over what it stands for; never 0. Among a million of them two are equal with a chance of less
// than one in ten million.
using IndexKey = std::uint64_t;
IndexKey nameKey(std::string_view name) noexcept;  // something that can be depended on
IndexKey packageKey(std::string_view name, std::string_view architecture) noexcept;

class Index {
 public:
  struct Entry {
    std::atomic<std::uint64_t> key;
    std::atomic<std::uint64_t> rank;  // ~line, 0 while there is none
  };

  // `memory` holds `entryCount` entries, a power of two, all zero when the engine starts.
  Index(Entry* memory, std::size_t entryCount) noexcept : entries_(memory), mask_(entryCount - 1) {}

  // Entries for a file of that many bytes: more than it can have keys.
  static std::size_t entriesFor(std::uint64_t fileBytes) noexcept;

  // Puts a key in with the line it comes from. 0, or SQLI_INDEX_PAGES_EXHAUSTED.
  SqlzZrc insert(IndexKey key, std::uint64_t line) noexcept;

  // Tells the lowest line of a key. 0, or SQLI_KEY_NOT_FOUND and the line is 0.
  SqlzZrc find(IndexKey key, std::uint64_t* line) const noexcept;

 private:
  // The entry of a key, or the free one where it belongs; null when the table is full.
  [[nodiscard]] Entry* place(IndexKey key) const noexcept;

  Entry* entries_;
  std::size_t mask_;
};
static_assert(std::atomic<std::uint64_t>::is_always_lock_free, "processes share the entries");

}  // namespace demo
