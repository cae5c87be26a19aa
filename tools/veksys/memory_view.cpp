// The text of `veksys memory`: processes and shared sets, largest first; what grew; sums.
#include "memory_view.h"

#include <algorithm>

#include "clock.h"
#include "veksys/host.h"

namespace veksys {
namespace {

constexpr std::string_view kRed = "\x1b[31m";
constexpr std::string_view kYellow = "\x1b[33m";
constexpr std::string_view kBold = "\x1b[1m";

constexpr std::size_t kLabelWidth = 40;
constexpr std::size_t kColumnWidth = 12;
constexpr std::size_t kGrowthShown = 20;
constexpr std::uint64_t kBlank = UINT64_MAX;  // a column without a size

std::string plural(std::size_t count, const std::string& one, const std::string& many) {
  return std::to_string(count) + " " + (count == 1 ? one : many);
}

class MemoryText {
 public:
  MemoryText(Command& command, const MemoryPicture& picture)
      : out_(command.out), colour_(command.colour), picture_(picture) {}

  void put() {
    putHead();
    for (const MemoryProcess& process : picture_.processes) putProcess(process);
    for (const MemorySet& set : picture_.sharedSets) putSharedSet(set);
    if (picture_.hasEarlier) putGrowth();
    putController();
    putSums();
  }

 private:
  void begin(std::string_view colour) {
    if (colour_ && !colour.empty()) out_.put(colour);
  }
  void end(std::string_view colour) {
    if (colour_ && !colour.empty()) out_.put("\x1b[0m");
  }

  void putHead() {
    begin(kBold);
    const std::size_t start = out_.size();
    out_.padTo(start, kLabelWidth);
    for (const std::string_view column : {"reserved", "committed", "used", "most"}) putRight(column);
    end(kBold);
    out_.lineEnd();
  }

  void putRight(std::string_view text) {
    out_.fill(' ', kColumnWidth - std::min(kColumnWidth - 1, text.size()));
    out_.put(text);
  }

  void putSize(std::uint64_t bytes) {
    scratch_.clear();
    if (bytes != kBlank) putBytes(scratch_, bytes);
    putRight(scratch_.view());
  }

  // "  pool bph           8 MB           -      6.1 MB     8 MB  remark"
  void putRow(std::size_t depth, std::string_view kind, const std::string& name, std::string_view colour,
              std::initializer_list<std::uint64_t> sizes, std::string_view remark = "") {
    begin(colour);
    const std::size_t start = out_.size();
    out_.fill(' ', 2 * depth);
    out_.put(kind);
    putSafe(out_, name);
    out_.padTo(start, kLabelWidth + (colour_ ? colour.size() : 0));
    for (const std::uint64_t size : sizes) putSize(size);
    if (!remark.empty()) {
      out_.put("  ");
      out_.put(remark);
    }
    end(colour);
    out_.lineEnd();
  }

  void putProcess(const MemoryProcess& process) {
    const bool isDead = process.state == ProcessState::kDead;
    const std::string_view colour = isDead ? kRed : process.state == ProcessState::kStopped ? kYellow : kBold;
    const std::string remark = isDead ? "PROCESS IS DEAD" : process.state == ProcessState::kStopped ? "stopped" : "";
    const MemorySums& sums = process.sums;
    putRow(0, "", process.name + " " + std::to_string(process.number), colour,
           {sums.reservedBytes, sums.committedBytes, sums.usedBytes}, remark);
    for (const MemorySet& set : process.sets) putSet(set);
    for (const SqloMemEntry& consumer : process.consumers)
      if (consumer.set == 0) putConsumer(consumer);
    for (const SqloMemEntry& connection : process.connections)
      putRow(1, "connected to ", memoryLabel(connection), "", {});
    out_.lineEnd();
  }

  void putSharedSet(const MemorySet& set) {
    const SqloMemEntry& entry = set.entry;
    putRow(0, "shared ", memoryLabel(entry), kBold,
           {entry.sizeBytes, entry.committedBytes, entry.usedBytes, entry.peakBytes},
           plural(set.connections.size(), "process", "processes") + setRemark(set));
    putPools(set, 1);
    out_.lineEnd();
  }

  void putSet(const MemorySet& set) {
    const SqloMemEntry& entry = set.entry;
    const std::string remark = setRemark(set);
    putRow(1, "set ", memoryLabel(entry), "", {entry.sizeBytes, entry.committedBytes, entry.usedBytes, entry.peakBytes},
           remark.empty() ? "" : std::string_view(remark).substr(2));
    putPools(set, 2);
  }

  static std::string setRemark(const MemorySet& set) {
    if (set.ownedBytes > set.entry.usedBytes) return ", ITS POOLS OWN MORE";
    if (set.grantedBytes != 0 && set.grantedBytes != set.entry.sizeBytes)
      return ", COUNTED OTHERWISE BY THE CONTROLLER";
    return "";
  }

  void putPools(const MemorySet& set, std::size_t depth) {
    for (const SqloMemEntry& pool : set.pools) {
      std::string remark;
      if (pool.limitBytes != set.entry.limitBytes) remark = "limit " + sizeText(pool.limitBytes);
      if (pool.refusals != 0) remark += (remark.empty() ? "" : ", ") + plural(pool.refusals, "refusal", "refusals");
      putRow(depth, "pool ", memoryLabel(pool), "", {pool.sizeBytes, kBlank, pool.usedBytes, pool.peakBytes}, remark);
    }
    if (set.looseBytes() != 0) putRow(depth, "", "in no pool", "", {set.looseBytes()});
  }

  void putConsumer(const SqloMemEntry& consumer) {
    const std::string remark = consumer.keptBytes == 0 ? "" : sizeText(consumer.keptBytes) + " could be released";
    putRow(1, "consumer ", memoryLabel(consumer), "", {consumer.sizeBytes, kBlank, kBlank, consumer.peakBytes}, remark);
  }

  std::string sizeText(std::uint64_t bytes) {
    scratch_.clear();
    putBytes(scratch_, bytes);
    return std::string(scratch_.view());
  }

  // ---- what grew ------------------------------------------------------------------------------------------------

  void putGrowth() {
    begin(kBold);
    out_.put(picture_.growth.empty() ? "Nothing grew since the last look" : "Grew since the last look");
    end(kBold);
    out_.lineEnd();
    for (std::size_t i = 0; i < std::min(picture_.growth.size(), kGrowthShown); ++i) putGrower(picture_.growth[i]);
    out_.lineEnd();
  }

  void putGrower(const MemoryGrowth& growth) {
    constexpr std::string_view kKinds[] = {"", "set ", "pool ", "consumer "};
    const SqloMemEntry& entry = growth.entry;
    const std::string place =
        entry.owner == 0 ? "shared" : std::string(entry.processName) + " " + std::to_string(entry.processId);
    putRow(1, kKinds[entry.kind], memoryLabel(entry) + ", " + place, kYellow, {amountOf(entry)},
           "+" + sizeText(growth.bytes));
  }

  // ---- sums -----------------------------------------------------------------------------------------------------

  void putController() {
    const SqloMemPartitionStats& controller = picture_.controller;
    if (!controller.active) return out_.put("Controller: not active, everything is granted.\n");
    out_.put("Controller: " + sizeText(controller.currentSize) + " granted of " + sizeText(controller.upperBound) +
             (controller.automatic && !controller.boundFixed ? ", an automatic bound" : "") + "; at most " +
             sizeText(controller.usageHighWater) + "; " + sizeText(controller.cachedMemory) + " could be released.\n");
  }

  void putSums() {
    const MemorySums& sums = picture_.sums;
    out_.put("Instance ");
    out_.put(vekInstanceName());
    if (picture_.processes.empty() && picture_.sharedSets.empty()) return out_.put(": no memory set is in use.\n");
    out_.put(": " + plural(picture_.processes.size(), "process", "processes") + ", " +
             plural(picture_.sharedSets.size(), "shared set", "shared sets") + "; " + sizeText(sums.reservedBytes) +
             " reserved, " + sizeText(sums.committedBytes) + " committed, " + sizeText(sums.usedBytes) + " used.\n");
    if (!picture_.addsUp()) {
      begin(kRed);
      out_.put("THE SUMS DO NOT ADD UP: see above, or the counters of the controller are not those of its consumers.");
      end(kRed);
      out_.lineEnd();
    }
  }

  Output& out_;
  bool colour_;
  const MemoryPicture& picture_;
  Text scratch_;
};

}  // namespace

void putMemory(Command& command, const MemoryPicture& picture) { MemoryText(command, picture).put(); }

}  // namespace veksys
