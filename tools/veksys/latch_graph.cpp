#include "latch_graph.h"

#include <algorithm>
#include <deque>
#include <map>
#include <set>
#include <tuple>

#include "veksys/sync/latch.h"

namespace veksys {
namespace {

// What tells a request from every other one, whether it waits or holds.
using Identity = std::tuple<std::uint64_t, std::uint32_t, std::uint64_t, std::uint64_t>;
Identity identityOf(const SqloLatchEntry& entry) { return {entry.owner, entry.threadId, entry.latch, entry.sequence}; }
using IdentityInState = std::pair<Identity, std::uint32_t>;
IdentityInState stateOf(const SqloLatchEntry& entry) { return {identityOf(entry), entry.state}; }

using ThreadKey = std::pair<std::uint64_t, std::uint32_t>;
ThreadKey threadOf(const SqloLatchEntry& entry) { return {entry.owner, entry.threadId}; }

// A latch in memory of one process is another one than that of any other process at the same address.
using LatchKey = std::pair<std::uint64_t, std::uint64_t>;
LatchKey latchOf(const SqloLatchEntry& entry) { return {entry.isBetweenProcesses != 0 ? 0 : entry.owner, entry.latch}; }

class Drawing {
 public:
  explicit Drawing(const std::vector<LatchSight>& sights) : sights_(sights) {}

  LatchGraph graph() {
    collectLatches();
    for (const LatchNode& latch : graph_.latches) connect(latch);
    findCycles();
    sortLatches();
    return std::move(graph_);
  }

 private:
  const LatchSight& at(std::size_t sight) const { return sights_[sight]; }

  void collectLatches() {
    std::map<LatchKey, std::size_t> places;
    for (std::size_t i = 0; i < sights_.size(); ++i) {
      if (at(i).span == LatchSpan::kGone) continue;
      const auto [place, isNew] = places.emplace(latchOf(at(i).entry), graph_.latches.size());
      if (isNew) graph_.latches.emplace_back();
      graph_.latches[place->second].sights.push_back(i);
      if (at(i).isHeld() && at(i).isDead()) graph_.deadHolders.push_back(i);
    }
    for (LatchNode& latch : graph_.latches) measure(latch);
  }

  void measure(LatchNode& latch) const {
    std::stable_sort(latch.sights.begin(), latch.sights.end(), [this](std::size_t a, std::size_t b) {
      return std::make_tuple(!at(a).isHeld(), -at(a).ns) < std::make_tuple(!at(b).isHeld(), -at(b).ns);
    });
    for (const std::size_t sight : latch.sights) {
      if (!at(sight).waits()) continue;
      ++latch.waiters;
      latch.longestWaitNs = std::max(latch.longestWaitNs, at(sight).ns);
    }
  }

  void connect(const LatchNode& latch) {
    for (const std::size_t waiter : latch.sights) {
      if (!at(waiter).waits()) continue;
      const std::vector<std::size_t> blockers = blockersOf(latch, waiter);
      for (const std::size_t blocker : blockers) graph_.edges.push_back({waiter, blocker});
      if (blockers.empty() && at(waiter).isSteady) graph_.orphans.push_back(waiter);
    }
  }

  template <class Wanted>
  std::vector<std::size_t> chosen(const LatchNode& latch, Wanted wanted) const {
    std::vector<std::size_t> found;
    for (const std::size_t sight : latch.sights)
      if (wanted(at(sight))) found.push_back(sight);
    return found;
  }

  // Who must go before this waiter gets in. One that holds the latch shared and waits to be alone with it waits for the
  // other holders; only without any it waits for itself.
  std::vector<std::size_t> blockersOf(const LatchNode& latch, std::size_t waiter) const {
    const SqloLatchEntry& own = at(waiter).entry;
    if (!at(waiter).isExclusive()) {
      auto found = chosen(latch, [](const LatchSight& each) { return each.isHeld() && each.isExclusive(); });
      if (found.empty())
        found = chosen(latch, [](const LatchSight& each) { return each.waits() && each.isExclusive(); });
      return found;
    }
    auto others = chosen(latch, [&](const LatchSight& each) {
      return each.isHeld() && (each.isExclusive() || !isSameThread(each.entry, own));
    });
    return others.empty() ? chosen(latch, [](const LatchSight& each) { return each.isHeld(); }) : others;
  }

  // ---- cycles: through edges of which both ends were the same in every look -----------------------------------------

  void findCycles() {
    for (std::size_t edge = 0; edge < graph_.edges.size(); ++edge)
      if (at(graph_.edges[edge].waiter).isSteady && at(graph_.edges[edge].blocker).isSteady)
        from_[threadOf(at(graph_.edges[edge].waiter).entry)].push_back(edge);
    for (const auto& [thread, edges] : from_)
      if (!inCycle_.contains(thread)) keepCycle(shortestCycle(thread));
  }

  void keepCycle(LatchCycle cycle) {
    if (cycle.empty()) return;
    for (const std::size_t edge : cycle) inCycle_.insert(threadOf(at(graph_.edges[edge].waiter).entry));
    graph_.cycles.push_back(std::move(cycle));
  }

  // Breadth first from a thread back to itself; empty when there is no way.
  LatchCycle shortestCycle(const ThreadKey& start) const {
    std::map<ThreadKey, std::size_t> reachedBy;
    std::deque<ThreadKey> next = {start};
    while (!next.empty() && !reachedBy.contains(start)) {
      const auto edges = from_.find(next.front());
      next.pop_front();
      if (edges == from_.end()) continue;
      for (const std::size_t edge : edges->second) {
        const ThreadKey reached = threadOf(at(graph_.edges[edge].blocker).entry);
        if (reachedBy.emplace(reached, edge).second) next.push_back(reached);
      }
    }
    LatchCycle cycle;
    if (!reachedBy.contains(start)) return cycle;
    ThreadKey thread = start;
    do {
      cycle.push_back(reachedBy.at(thread));
      thread = threadOf(at(graph_.edges[cycle.back()].waiter).entry);
    } while (thread != start);
    std::reverse(cycle.begin(), cycle.end());
    return cycle;
  }

  void sortLatches() {
    std::stable_sort(graph_.latches.begin(), graph_.latches.end(), [this](const LatchNode& a, const LatchNode& b) {
      const SqloLatchEntry& x = at(a.sights.front()).entry;
      const SqloLatchEntry& y = at(b.sights.front()).entry;
      return std::make_tuple(a.waiters == 0, -a.longestWaitNs, x.typeId, x.latch) <
             std::make_tuple(b.waiters == 0, -b.longestWaitNs, y.typeId, y.latch);
    });
  }

  const std::vector<LatchSight>& sights_;
  LatchGraph graph_;
  std::map<ThreadKey, std::vector<std::size_t>> from_;  // edges by the thread that waits
  std::set<ThreadKey> inCycle_;
};

LatchSight sightOf(const SqloLatchEntry& entry, std::size_t seen, std::size_t looks, std::int64_t spanNs,
                   std::int64_t nowNs) {
  LatchSight sight = {entry, LatchSpan::kLessThan, spanNs, seen == looks, false};
  if (sight.isSteady) sight.span = LatchSpan::kAtLeast;
  if (entry.hasSince == 0) return sight;
  sight.span = LatchSpan::kExact;
  sight.ns = std::max<std::int64_t>(0, nowNs - entry.sinceNs);
  return sight;
}

}  // namespace

bool LatchSight::isExclusive() const noexcept { return (entry.request & SQLO_LATCH_EXCLUSIVE) != 0; }

bool isSameThread(const SqloLatchEntry& a, const SqloLatchEntry& b) noexcept { return threadOf(a) == threadOf(b); }
bool isSameLatch(const SqloLatchEntry& a, const SqloLatchEntry& b) noexcept { return latchOf(a) == latchOf(b); }

std::vector<LatchSight> compareLooks(const std::vector<LatchLook>& looks, std::int64_t spanNs, std::int64_t nowNs) {
  std::map<IdentityInState, std::size_t> seen;
  for (const LatchLook& look : looks)
    for (const SqloLatchEntry& entry : look) ++seen[stateOf(entry)];
  std::vector<LatchSight> sights;
  std::set<Identity> known;
  for (const SqloLatchEntry& entry : looks.back()) {
    sights.push_back(sightOf(entry, seen[stateOf(entry)], looks.size(), spanNs, nowNs));
    known.insert(identityOf(entry));
  }
  for (const LatchLook& look : looks)
    for (const SqloLatchEntry& entry : look)
      if (known.insert(identityOf(entry)).second) sights.push_back({entry, LatchSpan::kGone, 0, false, false});
  return sights;
}

LatchGraph drawLatchGraph(const std::vector<LatchSight>& sights) { return Drawing(sights).graph(); }

void confirmOrphans(LatchGraph* graph, const std::vector<LatchSight>& sights, const LatchLook& look) {
  const std::vector<LatchSight> now = compareLooks({look}, 0, 0);
  std::set<Identity> still;
  for (const std::size_t orphan : drawLatchGraph(now).orphans) still.insert(identityOf(now[orphan].entry));
  std::erase_if(graph->orphans, [&](std::size_t orphan) { return !still.contains(identityOf(sights[orphan].entry)); });
}

}  // namespace veksys
