// The picture of an instance's latches as JSON.
#include <algorithm>
#include <set>

#include "clock.h"
#include "json.h"
#include "latch_view.h"
#include "veksys/host.h"

namespace veksys {
namespace {

template <class Json>
class LatchJson {
 public:
  LatchJson(Json& json, const LatchPicture& picture, const LatchFilter& filter)
      : json_(json), picture_(picture), graph_(picture.graph) {
    for (const LatchNode& latch : graph_.latches)
      if (filter.chooses(picture, latch)) choose(latch);
    for (std::size_t i = 0; filter.all && i < picture.sights.size(); ++i)
      if (at(i).span == LatchSpan::kGone && filter.chooses(at(i).entry)) chosen_.insert(i);
  }

  void put() {
    json_.member("instance", vekInstanceName());
    Text taken;
    ClockText::iso(taken, picture_.takenNs);
    json_.member("taken", taken.view());
    json_.member("span_ns", picture_.spanNs);
    json_.member("problem", graph_.hasProblem());
    json_.array("entries");
    for (const std::size_t sight : chosen_) putEntry(sight);
    json_.EndArray();
    json_.array("edges");
    for (const LatchEdge& edge : graph_.edges)
      if (chosen_.contains(edge.waiter)) putEdge(edge);
    json_.EndArray();
    json_.array("cycles");
    for (const LatchCycle& cycle : graph_.cycles) putCycle(cycle);
    json_.EndArray();
    putSights("dead_holders", graph_.deadHolders);
    putSights("waiting_for_nobody", graph_.orphans);
    json_.EndObject();
  }

 private:
  const LatchSight& at(std::size_t sight) const { return picture_.sights[sight]; }

  void choose(const LatchNode& latch) { chosen_.insert(latch.sights.begin(), latch.sights.end()); }

  void text(std::string_view name, const char* foreign) {
    Text safe;
    putSafe(safe, foreign);
    json_.member(name, safe.view());
  }

  // Of an object that the caller opens and closes.
  void members(std::size_t sight) {
    const SqloLatchEntry& entry = at(sight).entry;
    Text address;
    address.hexShort(entry.latch);
    json_.member("id", sight);
    json_.member("latch", address.view());
    json_.member("between_processes", entry.isBetweenProcesses != 0);
    json_.member("type", latchTypeLabel(entry.typeId));
    json_.member("type_id", entry.typeId);
    json_.member("mode", at(sight).isExclusive() ? "X" : "S");
    json_.member("state", at(sight).isHeld() ? "held" : "waiting");
    json_.member("process", entry.processId);
    text("process_name", entry.processName);
    json_.member("thread", entry.threadId);
    text("thread_name", entry.threadName);
    text("file", entry.file);
    json_.member("line", entry.line);
  }

  void putEntry(std::size_t sight) {
    json_.StartObject();
    members(sight);
    json_.member("process_is_dead", at(sight).entry.processIsDead != 0);
    json_.member("thread_has_ended", at(sight).entry.threadHasEnded != 0);
    json_.member("stopped", at(sight).isStopped);
    json_.member("gone", at(sight).span == LatchSpan::kGone);
    constexpr std::string_view kSpans[] = {"for_ns", "at_least_ns", "less_than_ns"};
    if (at(sight).span != LatchSpan::kGone) json_.member(kSpans[static_cast<int>(at(sight).span)], at(sight).ns);
    json_.EndObject();
  }

  void putEdge(const LatchEdge& edge) {
    json_.StartObject();
    json_.member("waiter", edge.waiter);
    json_.member("blocker", edge.blocker);
    json_.EndObject();
  }

  void putCycle(const LatchCycle& cycle) {
    json_.StartObject();
    json_.array("waits");
    for (const std::size_t edge : cycle) {
      json_.StartObject();
      json_.object("waiter");
      members(graph_.edges[edge].waiter);
      json_.EndObject();
      json_.object("blocker");
      members(graph_.edges[edge].blocker);
      json_.EndObject();
      json_.EndObject();
    }
    json_.EndArray();
    json_.EndObject();
  }

  void putSights(std::string_view name, const std::vector<std::size_t>& sights) {
    json_.array(name);
    for (const std::size_t sight : sights) {
      json_.StartObject();
      members(sight);
      json_.EndObject();
    }
    json_.EndArray();
  }

  Json& json_;
  const LatchPicture& picture_;
  const LatchGraph& graph_;
  std::set<std::size_t> chosen_;
};

}  // namespace

void putLatchesAsJson(Output& out, const LatchPicture& picture, const LatchFilter& filter, bool asLine) {
  JsonDocument document;
  JsonLine line;
  if (asLine) {
    line.begin(out);
    LatchJson(line, picture, filter).put();
  } else {
    document.begin(out);
    LatchJson(document, picture, filter).put();
  }
  out.put('\n');
}

}  // namespace veksys
