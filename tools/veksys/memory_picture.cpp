#include "memory_picture.h"

#include <algorithm>
#include <map>
#include <tuple>

#include "process_state.h"

namespace veksys {
namespace {

using SetIndex = std::map<std::uint64_t, MemorySet>;

void sortBySize(std::vector<SqloMemEntry>& entries) {
  std::stable_sort(entries.begin(), entries.end(),
                   [](const SqloMemEntry& a, const SqloMemEntry& b) { return a.sizeBytes > b.sizeBytes; });
}

void sortBySize(std::vector<MemorySet>& sets) {
  std::stable_sort(sets.begin(), sets.end(),
                   [](const MemorySet& a, const MemorySet& b) { return a.entry.sizeBytes > b.entry.sizeBytes; });
}

SetIndex collectSets(const MemoryLook& look) {
  SetIndex sets;
  for (const SqloMemEntry& entry : look.entries)
    if (entry.kind == SQLO_MEM_ENTRY_SET) sets[entry.set].entry = entry;
  for (const SqloMemEntry& entry : look.entries) {
    const auto set = sets.find(entry.set);  // a set may have gone since its pool was read
    if (set == sets.end()) continue;
    if (entry.kind == SQLO_MEM_ENTRY_CONNECTION) set->second.connections.push_back(entry);
    if (entry.kind == SQLO_MEM_ENTRY_CONSUMER) set->second.grantedBytes += entry.sizeBytes;
    if (entry.kind != SQLO_MEM_ENTRY_POOL) continue;
    set->second.pools.push_back(entry);
    set->second.ownedBytes += entry.sizeBytes;
  }
  for (auto& [number, set] : sets) sortBySize(set.pools);
  return sets;
}

ProcessState stateOf(const SqloMemEntry& entry) {
  if (entry.processIsDead != 0) return ProcessState::kDead;
  return isThreadStopped(entry.processId, entry.processId) ? ProcessState::kStopped : ProcessState::kRunning;
}

MemoryProcess& processOf(std::map<std::uint64_t, MemoryProcess>& processes, const SqloMemEntry& entry) {
  const auto [found, isNew] = processes.try_emplace(entry.owner);
  MemoryProcess& process = found->second;
  if (isNew) process.owner = entry.owner;
  if (process.number != 0) return process;
  process.number = entry.processId;
  process.name = static_cast<const char*>(entry.processName);
  process.state = stateOf(entry);
  return process;
}

std::map<std::uint64_t, MemoryProcess> collectProcesses(const MemoryLook& look, const SetIndex& sets) {
  std::map<std::uint64_t, MemoryProcess> processes;
  for (const SqloMemEntry& entry : look.entries) {
    if (entry.owner == 0 || entry.kind == SQLO_MEM_ENTRY_POOL) continue;
    MemoryProcess& process = processOf(processes, entry);
    if (entry.kind == SQLO_MEM_ENTRY_CONNECTION) process.connections.push_back(entry);
    if (entry.kind == SQLO_MEM_ENTRY_CONSUMER) {
      process.consumers.push_back(entry);
      process.grantedBytes += entry.sizeBytes;
    }
    if (entry.kind != SQLO_MEM_ENTRY_SET) continue;
    process.sets.push_back(sets.at(entry.set));
    process.sums.add(entry);
  }
  return processes;
}

// What entries of two looks have in common when they are about the same.
using Identity = std::tuple<std::uint32_t, std::uint64_t, std::uint64_t, std::uint32_t, std::string>;

std::map<Identity, SqloMemEntry> addUp(const MemoryLook& look) {
  std::map<Identity, SqloMemEntry> sums;
  for (const SqloMemEntry& entry : look.entries) {
    if (entry.kind == SQLO_MEM_ENTRY_CONNECTION) continue;
    const Identity identity = {entry.kind, entry.set, entry.owner, entry.typeId, static_cast<const char*>(entry.name)};
    const auto [found, isNew] = sums.try_emplace(identity, entry);
    if (isNew) continue;
    found->second.usedBytes += entry.usedBytes;
    found->second.sizeBytes += entry.sizeBytes;
  }
  return sums;
}

}  // namespace

bool MemoryPicture::addsUp() const {
  const auto isSound = [](const MemorySet& set) { return set.addsUp(); };
  if (controller.active && controller.currentSize != grantedBytes) return false;
  return std::all_of(sharedSets.begin(), sharedSets.end(), isSound) &&
         std::all_of(processes.begin(), processes.end(), [&](const MemoryProcess& process) {
           return std::all_of(process.sets.begin(), process.sets.end(), isSound);
         });
}

MemoryPicture drawMemory(const MemoryLook& look) {
  MemoryPicture picture;
  picture.controller = look.controller;
  const SetIndex sets = collectSets(look);
  for (const auto& [number, set] : sets) {
    if (set.entry.isShared != 0) picture.sharedSets.push_back(set);
    if (set.entry.processIsDead == 0) picture.sums.add(set.entry);
  }
  for (auto& [owner, process] : collectProcesses(look, sets)) {
    sortBySize(process.sets);
    sortBySize(process.consumers);
    picture.grantedBytes += process.grantedBytes;
    picture.processes.push_back(process);
  }
  sortBySize(picture.sharedSets);
  std::stable_sort(
      picture.processes.begin(), picture.processes.end(), [](const MemoryProcess& a, const MemoryProcess& b) {
        return std::max(a.sums.reservedBytes, a.grantedBytes) > std::max(b.sums.reservedBytes, b.grantedBytes);
      });
  return picture;
}

std::vector<MemoryGrowth> compareMemory(const MemoryLook& before, const MemoryLook& now) {
  const std::map<Identity, SqloMemEntry> earlier = addUp(before);
  std::vector<MemoryGrowth> growth;
  for (const auto& [identity, entry] : addUp(now)) {
    const auto found = earlier.find(identity);
    const std::uint64_t was = found == earlier.end() ? 0 : amountOf(found->second);
    if (amountOf(entry) > was) growth.push_back({entry, amountOf(entry) - was});
  }
  std::stable_sort(growth.begin(), growth.end(),
                   [](const MemoryGrowth& a, const MemoryGrowth& b) { return a.bytes > b.bytes; });
  return growth;
}

std::string memoryLabel(const SqloMemEntry& entry) {
  const std::string name = static_cast<const char*>(entry.name);
  const bool isSet = entry.kind == SQLO_MEM_ENTRY_SET || entry.kind == SQLO_MEM_ENTRY_CONNECTION;
  if (!isSet || entry.isShared == 0) return name.empty() ? "(no name)" : name;
  return std::string(sqloMemSetTypeName(entry.typeId)) + (name.empty() ? "" : " " + name);
}

}  // namespace veksys
