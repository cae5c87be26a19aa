// The text of `veksys latch`: what is wrong, the latches with their holders and waiters, who waits for whom.
#include "latch_view.h"

#include <algorithm>
#include <map>
#include <set>

#include "clock.h"
#include "instance.h"
#include "names.h"
#include "veksys/host.h"
#include "veksys/sync/latch.h"
#include "veksys/sync/latch_control.h"

namespace veksys {
namespace {

constexpr std::string_view kRed = "\x1b[31m";
constexpr std::string_view kYellow = "\x1b[33m";
constexpr std::string_view kBold = "\x1b[1m";

using Thread = std::pair<std::uint64_t, std::uint32_t>;
Thread threadOf(const LatchSight& sight) { return {sight.entry.owner, sight.entry.threadId}; }

std::string plural(std::size_t count, const std::string& one, const std::string& many) {
  return std::to_string(count) + " " + (count == 1 ? one : many);
}

void putPlace(Text& out, const SqloLatchEntry& entry) {
  putSafe(out, entry.file[0] == '\0' ? "?" : static_cast<const char*>(entry.file));
  out.put(':');
  out.decimal(entry.line);
}

// "server 4711, worker 4713"
void putThread(Text& out, const SqloLatchEntry& entry) {
  putSafe(out, static_cast<const char*>(entry.processName));
  out.put(' ');
  out.decimal(entry.processId);
  out.put(", ");
  putSafe(out, static_cast<const char*>(entry.threadName));
  out.put(' ');
  out.decimal(entry.threadId);
}

void putLatch(Text& out, const SqloLatchEntry& entry) {
  out.put(latchTypeLabel(entry.typeId));
  out.put(' ');
  out.hexShort(entry.latch);
}

std::string_view modeOf(const LatchSight& sight) { return sight.isExclusive() ? "X" : "S"; }

class LatchText {
 public:
  LatchText(Command& command, const LatchPicture& picture, const LatchFilter& filter)
      : out_(command.out), colour_(command.colour), picture_(picture), graph_(picture.graph), filter_(filter) {}

  void put() {
    putProblems();
    for (const LatchNode& latch : graph_.latches)
      if (filter_.chooses(picture_, latch)) putNode(latch);
    if (filter_.all) putGone();
    putChains();
    putSummary();
  }

 private:
  const LatchSight& at(std::size_t sight) const { return picture_.sights[sight]; }

  void begin(std::string_view colour) {
    if (colour_) out_.put(colour);
  }
  void end() {
    if (colour_) out_.put("\x1b[0m");
  }
  void line(std::string_view colour, std::string_view text) {
    begin(colour);
    out_.put(text);
    end();
    out_.lineEnd();
  }

  // ---- what is wrong ------------------------------------------------------------------------------------------------

  void putProblems() {
    for (const LatchCycle& cycle : graph_.cycles) putCycle(cycle);
    for (const std::size_t holder : graph_.deadHolders) putDeadHolder(at(holder));
    for (const std::size_t waiter : graph_.orphans) putOrphan(at(waiter));
    if (graph_.hasProblem()) out_.lineEnd();
  }

  void putCycle(const LatchCycle& cycle) {
    line(kRed, cycle.size() == 1 ? "DEADLOCK: a thread waits for itself"
                                 : "DEADLOCK: " + std::to_string(cycle.size()) + " threads wait for each other");
    for (const std::size_t number : cycle) {
      const LatchEdge& edge = graph_.edges[number];
      out_.put("  ");
      putThread(out_, at(edge.waiter).entry);
      out_.put("\n    waits ");
      putWaitingFor(at(edge.waiter));
      out_.put("\n    ");
      putBlocking(edge);
      out_.put(" by ");
      putThread(out_, at(edge.blocker).entry);
      out_.lineEnd();
    }
  }

  // "12 s at pool/fix.cpp:812 for X of SQLO_LT_... 0x7f..."
  void putWaitingFor(const LatchSight& waiter) {
    putTime(waiter);
    out_.put(" at ");
    putPlace(out_, waiter.entry);
    out_.put(" for ");
    out_.put(modeOf(waiter));
    out_.put(" of ");
    putLatch(out_, waiter.entry);
  }

  // "which is held X at pool/fix.cpp:812"
  void putBlocking(const LatchEdge& edge) {
    out_.put(at(edge.blocker).isHeld() ? "which is held " : "which is waited for before it, ");
    out_.put(modeOf(at(edge.blocker)));
    out_.put(" at ");
    putPlace(out_, at(edge.blocker).entry);
  }

  void putDeadHolder(const LatchSight& holder) {
    begin(kRed);
    out_.put("DEAD HOLDER: ");
    end();
    putThread(out_, holder.entry);
    out_.put(holder.entry.processIsDead != 0 ? ", whose process is dead, holds " : ", which has ended, holds ");
    putLatch(out_, holder.entry);
    out_.put(" (");
    out_.put(modeOf(holder));
    out_.put(", ");
    putPlace(out_, holder.entry);
    out_.put(")");
    out_.lineEnd();
  }

  void putOrphan(const LatchSight& waiter) {
    begin(kRed);
    out_.put("HELD BY NOBODY: ");
    end();
    putThread(out_, waiter.entry);
    out_.put(" waits ");
    putWaitingFor(waiter);
    out_.put(", and nobody is seen to hold it");
    out_.lineEnd();
  }

  // ---- latches ------------------------------------------------------------------------------------------------------

  void putNode(const LatchNode& latch) {
    const SqloLatchEntry& first = at(latch.sights.front()).entry;
    begin(kBold);
    putLatch(out_, first);
    end();
    out_.put(first.isBetweenProcesses != 0 ? ", between processes" : "");
    out_.lineEnd();
    for (const std::size_t sight : latch.sights) putRow(at(sight), latch.longestWaitNs);
    out_.lineEnd();
  }

  void putRow(const LatchSight& sight, std::int64_t longestWaitNs) {
    const std::string_view colour = sight.isDead() ? kRed : sight.isHeld() ? "" : kYellow;
    begin(colour);
    const std::size_t start = out_.size();
    out_.put(sight.isHeld() ? "  held " : "  waits ");
    out_.padTo(start, 8);
    out_.put(modeOf(sight));
    out_.put("  ");
    putThread(out_, sight.entry);
    out_.padTo(start, 50);
    out_.put("  ");
    putPlace(out_, sight.entry);
    out_.padTo(start, 80);
    out_.put("  ");
    putTime(sight);
    if (sight.isHeld() && longestWaitNs > 0 && sight.span != LatchSpan::kExact) {
      out_.put(", waited for ");
      putSpan(out_, longestWaitNs);
    }
    putState(sight);
    if (!colour.empty()) end();
    out_.lineEnd();
  }

  void putTime(const LatchSight& sight) {
    if (sight.span == LatchSpan::kGone) return out_.put("a moment");
    if (sight.span == LatchSpan::kAtLeast) out_.put("at least ");
    if (sight.span == LatchSpan::kLessThan) out_.put("less than ");
    putSpan(out_, sight.ns);
  }

  void putState(const LatchSight& sight) {
    if (sight.entry.processIsDead != 0)
      out_.put(", PROCESS IS DEAD");
    else if (sight.entry.threadHasEnded != 0)
      out_.put(", THREAD HAS ENDED");
    else if (sight.isStopped)
      out_.put(", stopped");
  }

  void putGone() {
    bool isFirst = true;
    for (const LatchSight& sight : picture_.sights) {
      if (sight.span != LatchSpan::kGone || !filter_.chooses(sight.entry)) continue;
      if (std::exchange(isFirst, false)) line(kBold, "Held or waited for at the first look only");
      out_.put("  ");
      putLatch(out_, sight.entry);
      out_.lineEnd();
      putRow(sight, 0);
    }
    if (!isFirst) out_.lineEnd();
  }

  // ---- chains: from those who wait for nobody to those who wait for them
  // ---------------------------------------------

  void putChains() {
    std::set<Thread> waiting;
    for (std::size_t i = 0; i < graph_.edges.size(); ++i) {
      if (!isShown(graph_.edges[i])) continue;
      waitersOf_[threadOf(at(graph_.edges[i].blocker))].push_back(i);
      waiting.insert(threadOf(at(graph_.edges[i].waiter)));
    }
    if (waitersOf_.empty()) return;
    line(kBold, "Who waits for whom");
    for (const auto& [thread, edges] : waitersOf_)
      if (!waiting.contains(thread)) putRoot(thread, edges.front());
    for (const auto& [thread, edges] : waitersOf_)
      if (!seen_.contains(thread)) putRoot(thread, edges.front());  // in a cycle, or behind one
    out_.lineEnd();
  }

  bool isShown(const LatchEdge& edge) const {
    return std::any_of(graph_.latches.begin(), graph_.latches.end(), [&](const LatchNode& latch) {
      return isSameLatch(at(latch.sights.front()).entry, at(edge.waiter).entry) && filter_.chooses(picture_, latch);
    });
  }

  void putRoot(const Thread& thread, std::size_t edge) {
    const LatchSight& sight = at(graph_.edges[edge].blocker);
    out_.put("  ");
    putThread(out_, sight.entry);
    putState(sight);
    out_.lineEnd();
    putWaiters(thread, 1);
  }

  void putWaiters(const Thread& thread, std::size_t depth) {
    seen_.insert(thread);
    const auto edges = waitersOf_.find(thread);
    if (edges == waitersOf_.end()) return;
    for (const std::size_t number : edges->second) {
      const LatchEdge& edge = graph_.edges[number];
      const Thread waiter = threadOf(at(edge.waiter));
      const bool isKnown = seen_.contains(waiter);
      putLink(edge, depth, isKnown && waitersOf_.contains(waiter));
      if (!isKnown) putWaiters(waiter, depth + 1);
    }
  }

  void putLink(const LatchEdge& edge, std::size_t depth, bool isShortened) {
    out_.fill(' ', 2 * std::min<std::size_t>(depth, kDeepest));
    out_.put("`- ");
    putThread(out_, at(edge.waiter).entry);
    out_.put(" waits ");
    putWaitingFor(at(edge.waiter));
    out_.put(", ");
    putBlocking(edge);
    if (isShortened) out_.put(" (its own waiters: above)");
    out_.lineEnd();
  }

  void putSummary() {
    std::set<Thread> threads;
    std::set<std::uint64_t> processes;
    std::size_t held = 0;
    std::size_t waiters = 0;
    for (const LatchSight& sight : picture_.sights) {
      if (sight.span == LatchSpan::kGone) continue;
      threads.insert(threadOf(sight));
      processes.insert(sight.entry.owner);
      held += sight.isHeld() ? 1U : 0U;
      waiters += sight.waits() ? 1U : 0U;
    }
    out_.put("Instance ");
    out_.put(vekInstanceName());
    if (threads.empty()) {
      out_.put(": no latch is held or waited for.\n");
      return;
    }
    out_.put(": " + plural(held, "hold", "holds") + " and " + plural(waiters, "wait", "waits") + " of " +
             plural(threads.size(), "thread", "threads") + " in " + plural(processes.size(), "process", "processes") +
             ".\n");
  }

  static constexpr std::size_t kDeepest = 30;

  Output& out_;
  bool colour_;
  const LatchPicture& picture_;
  const LatchGraph& graph_;
  const LatchFilter& filter_;
  std::map<Thread, std::vector<std::size_t>> waitersOf_;  // edges
  std::set<Thread> seen_;
};

bool matches(const std::vector<std::string>& wanted, std::uint32_t number, std::string_view name) {
  return wanted.empty() || std::any_of(wanted.begin(), wanted.end(), [&](const std::string& each) {
           return each == std::to_string(number) || globMatches(each, name);
         });
}

}  // namespace

std::string latchTypeLabel(std::uint32_t typeId) {
  const char* name = sqloLatchTypeName(typeId);
  return name == nullptr || name[0] == '\0' ? "type " + std::to_string(typeId) : name;
}

bool LatchFilter::chooses(const SqloLatchEntry& entry) const {
  return matches(processes, entry.processId, static_cast<const char*>(entry.processName)) &&
         matches(types, entry.typeId, latchTypeLabel(entry.typeId));
}

bool LatchFilter::chooses(const LatchPicture& picture, const LatchNode& latch) const {
  if (waitedFor && latch.waiters == 0) return false;
  return std::any_of(latch.sights.begin(), latch.sights.end(),
                     [&](std::size_t sight) { return chooses(picture.sights[sight].entry); });
}

void putLatches(Command& command, const LatchPicture& picture, const LatchFilter& filter) {
  LatchText(command, picture, filter).put();
}

}  // namespace veksys
