// Who waits for whom: the latches of an instance, their holders and waiters, and what is wrong among them.
//
// Pure: from entries, as one or more looks at the instance saw them, to a graph. A list is read while threads go on, so
// that one look alone may show what never was. What is called wrong here was the same in every look.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "veksys/sync/latch_list.h"

namespace veksys {

// How well it is known how long a hold or wait has lasted.
enum class LatchSpan {
  kExact,
  kAtLeast,   // it was there in every look
  kLessThan,  // it was not there in the first look
  kGone,      // it was not there in the last one
};

// One entry, as the looks saw it.
struct LatchSight {
  SqloLatchEntry entry;
  LatchSpan span;
  std::int64_t ns;  // of the span; 0 when it is gone
  bool isSteady;    // the same hold or wait in every look
  bool isStopped;   // its thread does not run: somebody stopped the process

  bool isHeld() const noexcept { return entry.state == SQLO_LATCH_ENTRY_HELD; }
  bool isExclusive() const noexcept;
  bool isDead() const noexcept { return entry.processIsDead != 0 || entry.threadHasEnded != 0; }
  bool waits() const noexcept { return !isHeld() && !isDead(); }
};

using LatchLook = std::vector<SqloLatchEntry>;

// Puts looks together, the oldest first; `spanNs` lies between the first and the last one, which was taken at `nowNs`
// of the monotonic clock. The entries of the last look come first, then those that are gone.
std::vector<LatchSight> compareLooks(const std::vector<LatchLook>& looks, std::int64_t spanNs, std::int64_t nowNs);

// One latch with those who hold it or wait for it; numbers of sights, holders first, the longest first.
struct LatchNode {
  std::vector<std::size_t> sights;
  std::size_t waiters = 0;
  std::int64_t longestWaitNs = 0;
};

// A thread that waits, and one that it waits for. The other one holds the latch or, where readers line up behind a
// waiting writer, is that writer.
struct LatchEdge {
  std::size_t waiter;   // number of its sight
  std::size_t blocker;  // likewise
};

using LatchCycle = std::vector<std::size_t>;  // edges; the blocker of each is the thread of the next one's waiter

struct LatchGraph {
  std::vector<LatchNode> latches;  // the longest waits first
  std::vector<LatchEdge> edges;
  std::vector<LatchCycle> cycles;        // every thread that is in one is in one of these
  std::vector<std::size_t> deadHolders;  // sights
  std::vector<std::size_t> orphans;      // sights of waiters for whom nobody is seen to stand in the way

  bool hasProblem() const noexcept { return !cycles.empty() || !deadHolders.empty() || !orphans.empty(); }
};

// Sights that are gone take no part.
LatchGraph drawLatchGraph(const std::vector<LatchSight>& sights);

// Leaves out the waiters of nobody that another look does not show as such.
void confirmOrphans(LatchGraph* graph, const std::vector<LatchSight>& sights, const LatchLook& look);

bool isSameThread(const SqloLatchEntry& a, const SqloLatchEntry& b) noexcept;
bool isSameLatch(const SqloLatchEntry& a, const SqloLatchEntry& b) noexcept;

}  // namespace veksys
