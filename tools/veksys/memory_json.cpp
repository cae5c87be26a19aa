// The picture of an instance's memory as JSON.
#include "clock.h"
#include "json.h"
#include "memory_view.h"
#include "veksys/host.h"

namespace veksys {
namespace {

template <class Json>
class MemoryJson {
 public:
  MemoryJson(Json& json, const MemoryPicture& picture) : json_(json), picture_(picture) {}

  void put() {
    json_.member("instance", vekInstanceName());
    Text taken;
    ClockText::iso(taken, picture_.takenNs);
    json_.member("taken", taken.view());
    json_.member("adds_up", picture_.addsUp());
    putController();
    json_.object("sums");
    putSums(picture_.sums);
    json_.member("granted_bytes", picture_.grantedBytes);
    json_.EndObject();
    putEach("processes", picture_.processes, [this](const MemoryProcess& process) { members(process); });
    putEach("shared_sets", picture_.sharedSets, [this](const MemorySet& set) { members(set); });
    if (picture_.hasEarlier)
      putEach("growth", picture_.growth, [this](const MemoryGrowth& growth) { members(growth); });
    json_.EndObject();
  }

 private:
  template <class List, class Put>
  void putEach(std::string_view name, const List& list, const Put& put) {
    json_.array(name);
    for (const auto& each : list) {
      json_.StartObject();
      put(each);
      json_.EndObject();
    }
    json_.EndArray();
  }

  void text(std::string_view name, std::string_view foreign) {
    Text safe;
    putSafe(safe, foreign);
    json_.member(name, safe.view());
  }

  void putController() {
    const SqloMemPartitionStats& controller = picture_.controller;
    json_.object("controller");
    json_.member("active", controller.active);
    json_.member("automatic", controller.automatic);
    json_.member("bound_fixed", controller.boundFixed);
    json_.member("strict", controller.strict);
    json_.member("bound_bytes", controller.upperBound);
    json_.member("granted_bytes", controller.currentSize);
    json_.member("peak_bytes", controller.usageHighWater);
    json_.member("releasable_bytes", controller.cachedMemory);
    json_.EndObject();
  }

  void putSums(const MemorySums& sums) {
    json_.member("reserved_bytes", sums.reservedBytes);
    json_.member("committed_bytes", sums.committedBytes);
    json_.member("used_bytes", sums.usedBytes);
  }

  void putProcess(std::uint32_t number, std::string_view name) {
    json_.member("process", number);
    text("process_name", name);
  }

  void members(const MemoryProcess& process) {
    putProcess(process.number, process.name);
    json_.member("state", processStateName(process.state));
    putSums(process.sums);
    json_.member("granted_bytes", process.grantedBytes);
    putEach("sets", process.sets, [this](const MemorySet& set) { members(set); });
    putEach("consumers", process.consumers, [this](const SqloMemEntry& entry) { consumer(entry); });
    putEach("connected_to", process.connections, [this](const SqloMemEntry& entry) { named(entry); });
  }

  void named(const SqloMemEntry& set) {
    json_.member("type", sqloMemSetTypeName(set.typeId));
    text("name", static_cast<const char*>(set.name));
  }

  void members(const MemorySet& set) {
    const SqloMemEntry& entry = set.entry;
    named(entry);
    json_.member("limit_bytes", entry.limitBytes);
    json_.member("reserved_bytes", entry.sizeBytes);
    json_.member("committed_bytes", entry.committedBytes);
    json_.member("used_bytes", entry.usedBytes);
    json_.member("peak_bytes", entry.peakBytes);
    json_.member("kept_bytes", entry.keptBytes);
    json_.member("granted_bytes", set.grantedBytes);
    json_.member("in_no_pool_bytes", set.looseBytes());
    putEach("pools", set.pools, [this](const SqloMemEntry& pool) { members(pool); });
    if (entry.isShared == 0) return;
    putEach("connections", set.connections, [this](const SqloMemEntry& connection) {
      putProcess(connection.processId, static_cast<const char*>(connection.processName));
      json_.member("dead", connection.processIsDead != 0);
    });
  }

  void members(const SqloMemEntry& pool) {
    json_.member("pool", static_cast<const char*>(pool.name));
    json_.member("pool_id", pool.typeId);
    json_.member("limit_bytes", pool.limitBytes);
    json_.member("owned_bytes", pool.sizeBytes);
    json_.member("used_bytes", pool.usedBytes);
    json_.member("peak_bytes", pool.peakBytes);
    json_.member("kept_bytes", pool.keptBytes);
    json_.member("refusals", pool.refusals);
  }

  void consumer(const SqloMemEntry& entry) {
    text("consumer", static_cast<const char*>(entry.name));
    json_.member("counts_a_set", entry.set != 0);
    json_.member("granted_bytes", entry.sizeBytes);
    json_.member("peak_bytes", entry.peakBytes);
    json_.member("releasable_bytes", entry.keptBytes);
  }

  void members(const MemoryGrowth& growth) {
    constexpr std::string_view kKinds[] = {"", "set", "pool", "consumer"};
    json_.member("kind", kKinds[growth.entry.kind]);
    text("name", memoryLabel(growth.entry));
    json_.member("shared", growth.entry.owner == 0);
    putProcess(growth.entry.processId, static_cast<const char*>(growth.entry.processName));
    json_.member("bytes", amountOf(growth.entry));
    json_.member("grew_bytes", growth.bytes);
  }

  Json& json_;
  const MemoryPicture& picture_;
};

}  // namespace

void putMemoryAsJson(Output& out, const MemoryPicture& picture, bool asLine) {
  JsonDocument document;
  JsonLine line;
  if (asLine) {
    line.begin(out);
    MemoryJson(line, picture).put();
  } else {
    document.begin(out);
    MemoryJson(document, picture).put();
  }
  out.put('\n');
}

}  // namespace veksys
