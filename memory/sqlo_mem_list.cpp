// The list of sets, pools and consumers of an instance.
#include <algorithm>
#include <cstring>

#include "diag/base/traced.h"
#include "memory/sqlo_mem_ctlr.h"
#include "memory/sqlo_mem_rows.h"
#include "platform/osse.h"
#include "veksys/codes.h"
#include "veksys/memory/memory_list.h"

namespace vek {
namespace {

using Access = SqloMemControllerAccess;

constexpr std::uint64_t bytesOf(std::uint32_t chunks) noexcept { return std::uint64_t{chunks} << SQLO_CHUNK_SHIFT; }

// Entries on their way to the caller; those without room are counted.
class Entries {
 public:
  Entries(SqloMemEntry* entries, std::size_t room, std::size_t& count) noexcept
      : entries_(entries), room_(room), count_(count) {
    count_ = 0;
  }
  void add(const SqloMemEntry& entry) noexcept {
    if (count_ < room_) entries_[count_] = entry;
    ++count_;
  }

 private:
  SqloMemEntry* entries_;
  std::size_t room_;
  std::size_t& count_;
};

// Which processes live, each asked once per run of questions about it.
class Lives {
 public:
  bool isDead(std::uint64_t owner) noexcept {
    if (owner != known_) lives_ = regionOwnerLives(known_ = owner);
    return !lives_;
  }

 private:
  std::uint64_t known_ = 0;
  bool lives_ = false;
};

const RegionProcess* processOf(std::uint64_t owner) noexcept {
  const auto* processes = static_cast<const RegionProcess*>(regionSection(RegionSectionId::kProcesses));
  const std::uint32_t slot = regionOwnerSlot(owner);
  const bool isThere = slot < REGION_PROCESS_SLOTS &&
                       processes[slot].generation.load(std::memory_order_acquire) == regionOwnerGeneration(owner);
  return isThere ? &processes[slot] : nullptr;
}

void nameProcess(SqloMemEntry* entry, std::uint64_t owner, Lives& lives) noexcept {
  entry->owner = owner;
  entry->processIsDead = lives.isDead(owner) ? 1 : 0;
  if (const RegionProcess* process = processOf(owner); process != nullptr) {
    entry->processId = process->processId;
    ossCopyText(entry->processName, sizeof entry->processName, process->name);
  }
}

// ---- sets and pools ---------------------------------------------------------------------------------------------

struct RowSeen {
  std::uint64_t owner;  // without READY
  std::uint64_t consumerOwner;
  std::uint32_t consumer;
  MemRowAbout about;
  SqloMemEntry counters;  // the numbers of an entry, nothing else
};

std::uint32_t read(const std::atomic<std::uint32_t>& counter) noexcept {
  return counter.load(std::memory_order_acquire);
}

void readCounters(const MemRow& row, RowSeen* out) noexcept {
  const bool isSet = out->about.kind == MemRowKind::kSet;
  const std::uint32_t used = read(row.used);
  out->counters = {};
  out->counters.options = read(row.options);
  out->counters.limitBytes = bytesOf(read(row.limitChunks));
  out->counters.sizeBytes = bytesOf(read(row.sizeChunks));
  out->counters.peakBytes = bytesOf(read(row.peakChunks));
  out->counters.keptBytes = bytesOf(read(row.keptChunks));
  out->counters.committedBytes = bytesOf(read(row.committedChunks));
  out->counters.usedBytes = isSet ? bytesOf(used) : used;
  out->counters.refusals = read(row.refusals);
  out->consumer = read(row.consumer);
  out->consumerOwner = row.consumerOwner.load(std::memory_order_acquire);
}

// False for a row that is free, being filled, or changes hands meanwhile.
bool readRow(const MemRow& row, RowSeen* out) noexcept {
  const std::uint32_t uses = row.uses.load(std::memory_order_acquire);
  const std::uint64_t owner = row.owner.load(std::memory_order_acquire);
  if ((owner & MEM_ROW_READY) == 0) return false;
  std::uint64_t words[MEM_ROW_WORDS];
  for (std::size_t i = 0; i < MEM_ROW_WORDS; ++i) words[i] = row.about[i].load(std::memory_order_acquire);
  std::memcpy(&out->about, words, sizeof words);
  readCounters(row, out);
  out->owner = owner & ~MEM_ROW_READY;
  return row.owner.load(std::memory_order_acquire) == owner && row.uses.load(std::memory_order_relaxed) == uses;
}

template <class Visit>
void visitSeen(const Visit& visit) noexcept {
  const MemRows& rows = *sqloi_rows();
  const std::uint32_t end = std::min(rows.highest.load(std::memory_order_acquire), MEM_ROWS);
  RowSeen seen;
  for (const MemRow* row = rows.rows; row != rows.rows + end; ++row)
    if (readRow(*row, &seen)) visit(seen);
}

// A number for a set: that of its owner, with its window where a process has several.
std::uint64_t setNumber(std::uint64_t owner, std::uint32_t window) noexcept {
  return (owner & MEM_ROW_SHARED) != 0
             ? owner
             : owner + (std::uint64_t{window} + 1) * (std::uint64_t{2} * REGION_PROCESS_SLOTS);
}

void describe(const RowSeen& seen, Lives& lives, SqloMemEntry* out) noexcept {
  const bool isShared = (seen.owner & MEM_ROW_SHARED) != 0;
  const bool isSet = seen.about.kind == MemRowKind::kSet;
  *out = seen.counters;
  out->kind = isSet ? SQLO_MEM_ENTRY_SET : SQLO_MEM_ENTRY_POOL;
  out->typeId = seen.about.typeId;
  out->set = setNumber(seen.owner, seen.about.window);
  out->owner = isShared ? 0 : seen.owner;
  out->isShared = isShared ? 1 : 0;
  out->processIsDead = !isShared && lives.isDead(seen.owner) ? 1 : 0;
  out->processId = seen.about.processId;
  std::memcpy(out->processName, seen.about.processName, sizeof seen.about.processName);
  if (isSet)
    std::memcpy(out->name, seen.about.name, sizeof seen.about.name);
  else
    ossCopyText(out->name, sizeof out->name, sqloGetMemPoolName(seen.about.typeId));
  out->processName[sizeof seen.about.processName - 1] = '\0';
  out->name[sizeof seen.about.name - 1] = '\0';
}

void listRows(Entries& entries, Lives& lives) noexcept {
  visitSeen([&](const RowSeen& seen) {
    SqloMemEntry entry;
    describe(seen, lives, &entry);
    entries.add(entry);
  });
}

// ---- shared sets: who is connected ------------------------------------------------------------------------------

void listConnections(Entries& entries, Lives& lives) noexcept {
  const auto& directory = *static_cast<const SetDirectory*>(regionSection(RegionSectionId::kMemorySets));
  for (std::uint32_t number = 0; number < MEM_SET_ENTRIES; ++number) {
    const SetEntry& set = directory.entries[number];
    if (static_cast<const volatile SetState&>(set.state) == SetState::kFree) continue;
    for (const std::uint64_t& connected : set.connected) {
      const std::uint64_t owner = __atomic_load_n(&connected, __ATOMIC_RELAXED);
      if (owner == 0) continue;
      SqloMemEntry entry = {};
      entry.kind = SQLO_MEM_ENTRY_CONNECTION;
      entry.typeId = set.setType;
      entry.set = sharedRowOwner(number, set.serial);
      entry.isShared = 1;
      nameProcess(&entry, owner, lives);
      std::memcpy(entry.name, set.name, sizeof set.name);
      entries.add(entry);
    }
  }
}

// ---- the controller ---------------------------------------------------------------------------------------------

// The set that a consumer counts, 0: none.
std::uint64_t setOfConsumer(std::uint32_t number, std::uint64_t owner) noexcept {
  std::uint64_t set = 0;
  visitSeen([&](const RowSeen& seen) {
    if (seen.consumer == number && seen.consumerOwner == owner && seen.about.kind == MemRowKind::kSet)
      set = setNumber(seen.owner, seen.about.window);
  });
  return set;
}

void listConsumers(const SqloMemController& controller, Entries& entries, Lives& lives) noexcept {
  if (!controller.isActive()) return;
  for (std::uint32_t number = 1; number <= SQLO_MEM_CONSUMERS; ++number) {
    const Access::Seen seen = Access::look(controller, number);
    if (seen.owner == 0) continue;
    SqloMemEntry entry = {};
    entry.kind = SQLO_MEM_ENTRY_CONSUMER;
    entry.typeId = seen.kind;
    entry.set = setOfConsumer(number, seen.owner);
    nameProcess(&entry, seen.owner, lives);
    std::memcpy(entry.name, seen.name, sizeof seen.name);
    entry.sizeBytes = seen.currentSize;
    entry.peakBytes = seen.highWater;
    entry.keptBytes = seen.cached;
    entries.add(entry);
  }
}

}  // namespace
}  // namespace vek

SqlzZrc sqloListMemory(SqloMemEntry* entries, std::size_t room, std::size_t* count,
                       SqloMemPartitionStats* controllerStats) noexcept {
  vek::VekTrace<vek::FID_sqloListMemory> trace;
  if (count == nullptr) return trace.exit(SQLO_INV_PARM);
  *count = 0;
  if (controllerStats != nullptr) *controllerStats = {};
  const SqlzZrc attached = vek::regionAttach();
  if (attached != 0) return trace.exit(attached);
  const auto& controller =
      *static_cast<const SqloMemController*>(vek::regionSection(vek::RegionSectionId::kMemoryController));
  if (controllerStats != nullptr) *controllerStats = vek::Access::look(controller);
  vek::Entries out(entries, room, *count);
  vek::Lives lives;
  vek::listRows(out, lives);
  vek::listConnections(out, lives);
  vek::listConsumers(controller, out, lives);
  return trace.exit(vek::regionSharedStatus());
}
