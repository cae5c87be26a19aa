#include "index.h"

#include <veksys/codes.h>
#include <veksys/diag/trace_scope.h>

#include <algorithm>
#include <bit>

#include "functions.h"

namespace demo {
namespace {

constexpr std::uint64_t kHashStart = 0xCBF29CE484222325U;  // of FNV-1a with 64 bits
constexpr std::uint64_t kHashPrime = 0x100000001B3U;
constexpr std::size_t kEntriesLeast = 1U << 14;
constexpr std::uint64_t kFileBytesPerEntry = 16;
constexpr std::size_t kEntriesMost = 1U << 26;

std::uint64_t hashed(std::uint64_t hash, std::string_view text) noexcept {
  for (const char c : text) hash = (hash ^ static_cast<unsigned char>(c)) * kHashPrime;
  return hash;
}

// Spreads the hash over all its bits, of which the table uses the lowest.
IndexKey finished(std::uint64_t hash) noexcept {
  hash = (hash ^ (hash >> 32)) * 0xD6E8FEB86659FD93U;
  hash ^= hash >> 32;
  return hash == 0 ? 1 : hash;
}

}  // namespace

IndexKey nameKey(std::string_view name) noexcept { return finished(hashed(hashed(kHashStart, "name\n"), name)); }

IndexKey packageKey(std::string_view name, std::string_view architecture) noexcept {
  const std::uint64_t hash = hashed(hashed(kHashStart, "package\n"), name);
  return finished(hashed(hashed(hash, "\n"), architecture));
}

std::size_t Index::entriesFor(std::uint64_t fileBytes) noexcept {
  const std::uint64_t wanted = std::clamp<std::uint64_t>(fileBytes / kFileBytesPerEntry, kEntriesLeast, kEntriesMost);
  return std::bit_ceil(wanted);
}

Index::Entry* Index::place(IndexKey key) const noexcept {
  for (std::size_t step = 0; step <= mask_; ++step) {
    Entry& entry = entries_[(key + step) & mask_];
    const std::uint64_t found = entry.key.load(std::memory_order_acquire);
    if (found == key || found == 0) return &entry;
  }
  return nullptr;
}

SqlzZrc Index::insert(IndexKey key, std::uint64_t line) noexcept {
  SqltTraceScope<FID_insertKey> trace;
  for (;;) {
    Entry* const entry = place(key);
    if (entry == nullptr) return trace.exit(SQLI_INDEX_PAGES_EXHAUSTED);
    std::uint64_t held = 0;
    if (!entry->key.compare_exchange_strong(held, key, std::memory_order_acq_rel) && held != key) continue;
    std::uint64_t rank = entry->rank.load(std::memory_order_relaxed);
    while (rank < ~line && !entry->rank.compare_exchange_weak(rank, ~line, std::memory_order_acq_rel)) {
    }
    return trace.exit(0);
  }
}

SqlzZrc Index::find(IndexKey key, std::uint64_t* line) const noexcept {
  SqltTraceScope<FID_findKey> trace;
  const Entry* const entry = place(key);
  const std::uint64_t rank = entry == nullptr ? 0 : entry->rank.load(std::memory_order_acquire);
  *line = rank == 0 ? 0 : ~rank;
  return trace.exit(rank == 0 ? SQLI_KEY_NOT_FOUND : SqlzZrc{0});
}

}  // namespace demo
