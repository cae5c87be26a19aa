// The memory of an instance as a picture: sets with their pools, processes with what is theirs, sums.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "veksys/memory/memory_list.h"

namespace veksys {

// The entries of one look.
struct MemoryLook {
  std::vector<SqloMemEntry> entries;
  SqloMemPartitionStats controller = {};
};

struct MemorySums {
  std::uint64_t reservedBytes = 0;
  std::uint64_t committedBytes = 0;
  std::uint64_t usedBytes = 0;

  void add(const SqloMemEntry& set) {
    reservedBytes += set.sizeBytes;
    committedBytes += set.committedBytes;
    usedBytes += set.usedBytes;
  }
};

struct MemorySet {
  SqloMemEntry entry;
  std::vector<SqloMemEntry> pools;        // largest first
  std::vector<SqloMemEntry> connections;  // of a shared set
  std::uint64_t ownedBytes = 0;           // by its pools
  std::uint64_t grantedBytes = 0;         // by the memory controller; 0 when the set is not registered

  // Handed out to nobody that is a pool.
  std::uint64_t looseBytes() const { return entry.usedBytes - std::min(entry.usedBytes, ownedBytes); }
  bool addsUp() const {
    return ownedBytes <= entry.usedBytes && (grantedBytes == 0 || grantedBytes == entry.sizeBytes);
  }
};

enum class ProcessState { kRunning, kStopped, kDead };

struct MemoryProcess {
  std::uint64_t owner;
  std::uint32_t number;
  std::string name;
  ProcessState state;
  MemorySums sums;                        // of its private sets
  std::uint64_t grantedBytes = 0;         // to its consumers
  std::vector<MemorySet> sets;            // private ones, largest first
  std::vector<SqloMemEntry> connections;  // to shared sets
  std::vector<SqloMemEntry> consumers;    // largest first; those that count sets as well
};

// What grew from one look to the next.
struct MemoryGrowth {
  SqloMemEntry entry;  // as it stands now; pools of one id in a set are added up
  std::uint64_t bytes;
};

struct MemoryPicture {
  std::int64_t takenNs = 0;
  SqloMemPartitionStats controller = {};
  std::vector<MemoryProcess> processes;  // largest first
  std::vector<MemorySet> sharedSets;     // likewise
  std::vector<MemoryGrowth> growth;      // most first
  bool hasEarlier = false;               // there was a look to compare with
  MemorySums sums;                       // of all sets but those of dead processes
  std::uint64_t grantedBytes = 0;        // to all consumers

  // False when pools own more than their set has handed out, or the controller counts other sums than its consumers.
  // What changes hands during a look can do that; what is still so at the next ones is wrong.
  bool addsUp() const;
};

MemoryPicture drawMemory(const MemoryLook& look);

// What grew, of entries that are in both looks or new.
std::vector<MemoryGrowth> compareMemory(const MemoryLook& before, const MemoryLook& now);

// What of an entry grows when memory leaks: bytes in use, of a consumer those that it was granted.
constexpr std::uint64_t amountOf(const SqloMemEntry& entry) {
  return entry.kind == SQLO_MEM_ENTRY_CONSUMER ? entry.sizeBytes : entry.usedBytes;
}

// "DBM_DB SAMPLE", "private", "bph", "sort"
std::string memoryLabel(const SqloMemEntry& entry);

constexpr std::string_view processStateName(ProcessState state) {
  return state == ProcessState::kDead ? "dead" : state == ProcessState::kStopped ? "stopped" : "running";
}

}  // namespace veksys
