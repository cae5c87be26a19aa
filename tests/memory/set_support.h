// What tests of memory sets and pools share: sets made for a test, and what must hold of them.
#pragma once

#include <sys/stat.h>

#include <string>

#include "memory/memory_support.h"
#include "memory/sqlo_mem_set.h"
#include "platform/address_windows.h"

namespace vek::memorytest {

inline constexpr std::uint32_t kOptions = SQLO_SET_GROWABLE | SQLO_SET_DECOMMITABLE | SQLO_SET_AUTOMATIC_MAX_FREE;

inline SqloMemSetRequest requestOf(std::uint32_t setType, std::uint32_t chunks, std::uint32_t options = kOptions) {
  SqloMemSetRequest request = {};
  request.size = sizeof request;
  request.setType = setType;
  request.options = options;
  request.name = setType == SQLO_SET_PRIVATE ? nullptr : "SAMPLE";
  request.bytes = chunks << SQLO_CHUNK_SHIFT;
  request.maxBytes = request.bytes * 4;
  request.incrementBytes = 16 << SQLO_CHUNK_SHIFT;
  return request;
}

inline SMemSet* create(const SqloMemSetRequest& request) {
  SMemSet* set = nullptr;
  EXPECT_EQ(sqlocshr(&request, &set), 0);
  return set;
}

// Takes a run of chunks for the test to keep.
inline SqlzZrc takeChunks(SMemSet& set, std::uint32_t chunks, void** address) {
  const SqlzZrc result = sqloi_setGetChunks(set, chunks, address);
  if (result == 0) sqloi_setRunArrived(set, *address);
  return result;
}

inline std::string setFile(const Instance& instance, const SMemSet& set) {
  return instance.region() + ":set." + std::to_string(set.m_window);
}

// Committed bytes as the kernel has them: writable mappings of a private set, blocks of a shared one.
inline std::uint64_t kernelBytes(const Instance& instance, const SMemSet& set) {
  if (!set.isPrivate()) {
    struct stat status = {};
    EXPECT_EQ(::stat(setFile(instance, set).c_str(), &status), 0);
    return static_cast<std::uint64_t>(status.st_blocks) * 512;
  }
  std::ifstream maps("/proc/self/maps");
  const auto base = reinterpret_cast<std::uintptr_t>(&set);
  std::uint64_t total = 0;
  for (std::string line; std::getline(maps, line);) {
    unsigned long begin = 0;
    unsigned long end = 0;
    char access[5] = "";
    if (std::sscanf(line.c_str(), "%lx-%lx %4s", &begin, &end, access) != 3 || access[1] != 'w') continue;
    if (begin >= base && end <= base + ADDRESS_WINDOW_BYTES) total += end - begin;
  }
  return total;
}

// Every invariant of a set, and what the kernel says.
inline void expectSound(const Instance& instance, SMemSet& set) {
  set.captureLatch(__FILE__, __LINE__);
  EXPECT_EQ(set.m_used.count(), set.m_usedChunks + set.m_fastCount);
  EXPECT_EQ(set.m_committed.count(), set.m_committedChunks);
  EXPECT_EQ(set.m_decommitted.count(), set.m_decommittedChunks);
  EXPECT_LE(set.m_recommitableChunks, set.m_decommittedChunks);
  EXPECT_LE(set.m_allocatedChunks, set.m_maxChunksAllowed);
  std::uint32_t chunks = 0;
  std::uint32_t subgroups = 0;
  for (std::uint32_t i = 0; i < set.m_groupCount; ++i) {
    EXPECT_EQ(set.m_groups[i].firstChunk, chunks);
    chunks += set.m_groups[i].chunks;
    subgroups += set.m_groups[i].subgroups;
  }
  EXPECT_EQ(chunks, set.m_allocatedChunks);
  EXPECT_EQ(subgroups, set.m_starts.count());
  for (std::uint32_t word = 0; word < MEM_SET_WORDS; ++word) {
    EXPECT_EQ(set.m_used.words[word] & ~set.m_committed.words[word], 0U);
    EXPECT_EQ(set.m_committed.words[word] & set.m_decommitted.words[word], 0U);
    EXPECT_EQ(
        (set.m_starts.words[word] | set.m_kept.words[word] | set.m_onTheWay.words[word]) & ~set.m_used.words[word], 0U);
  }
  EXPECT_EQ(kernelBytes(instance, set), (std::uint64_t{set.m_committedChunks} + 1) << SQLO_CHUNK_SHIFT);
  set.releaseLatch();
}

}  // namespace vek::memorytest
