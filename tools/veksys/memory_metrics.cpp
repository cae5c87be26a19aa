// The picture of an instance's memory as OpenMetrics text.
//
// A family is a row of one of the tables below; its samples are added up where their labels are the same, since a
// sample may occur once only.
#include <map>

#include "memory_view.h"
#include "veksys/host.h"

namespace veksys {
namespace {

// "{instance="default",process="4711"" without the last bracket.
class Labels {
 public:
  Labels() { add("instance", vekInstanceName()); }
  Labels& add(std::string_view name, std::string_view value) {
    text_ += text_.empty() ? '{' : ',';
    text_ += name;
    text_ += "=\"";
    Text safe;
    putSafe(safe, value);  // doubles backslashes, and leaves no line end
    for (const char c : safe.view()) text_ += c == '"' ? std::string("\\\"") : std::string(1, c);
    text_ += '"';
    return *this;
  }
  Labels& addProcess(const MemoryProcess& process) {
    return add("process", std::to_string(process.number))
        .add("process_name", process.name)
        .add("state", processStateName(process.state));
  }
  Labels& addSet(const SqloMemEntry& set) {
    return add("set_type", sqloMemSetTypeName(set.typeId)).add("set", static_cast<const char*>(set.name));
  }
  const std::string& text() const { return text_; }

 private:
  std::string text_;
};

struct Sample {
  std::string labels;
  SqloMemEntry entry;
};

struct Family {
  std::string_view name;  // in bytes when it ends so
  std::string_view help;
  std::uint64_t (*value)(const SqloMemEntry& entry);
};

constexpr Family kSetFamilies[] = {
    {"veksys_memory_set_limit_bytes", "Size up to which a memory set may grow.",
     [](const auto& e) { return e.limitBytes; }},
    {"veksys_memory_set_reserved_bytes", "Address space that a memory set has reserved.",
     [](const auto& e) { return e.sizeBytes; }},
    {"veksys_memory_set_committed_bytes", "Memory of the system that a memory set holds.",
     [](const auto& e) { return e.committedBytes; }},
    {"veksys_memory_set_used_bytes", "Chunks that a memory set has handed out.",
     [](const auto& e) { return e.usedBytes; }},
    {"veksys_memory_set_peak_bytes", "Most that a memory set ever handed out.",
     [](const auto& e) { return e.peakBytes; }},
};

constexpr Family kPoolFamilies[] = {
    {"veksys_memory_pool_limit_bytes", "Size up to which a memory pool may grow.",
     [](const auto& e) { return e.limitBytes; }},
    {"veksys_memory_pool_owned_bytes", "Chunks that a memory pool owns.", [](const auto& e) { return e.sizeBytes; }},
    {"veksys_memory_pool_used_bytes", "Blocks of a memory pool in use.", [](const auto& e) { return e.usedBytes; }},
    {"veksys_memory_pool_peak_bytes", "Most that a memory pool ever owned.", [](const auto& e) { return e.peakBytes; }},
    {"veksys_memory_pool_refusals", "Requests that a memory pool could not meet.",
     [](const auto& e) { return std::uint64_t{e.refusals}; }},
};

constexpr Family kConsumerFamilies[] = {
    {"veksys_memory_consumer_granted_bytes", "Memory that the controller has granted to a consumer.",
     [](const auto& e) { return e.sizeBytes; }},
    {"veksys_memory_consumer_peak_bytes", "Most that a consumer was ever granted.",
     [](const auto& e) { return e.peakBytes; }},
    {"veksys_memory_consumer_releasable_bytes", "Memory that a consumer could release.",
     [](const auto& e) { return e.keptBytes; }},
};

constexpr Family kControllerFamilies[] = {
    {"veksys_memory_bound_bytes", "Upper bound of the memory of the instance.",
     [](const auto& e) { return e.limitBytes; }},
    {"veksys_memory_granted_bytes", "Memory that the controller has granted.",
     [](const auto& e) { return e.sizeBytes; }},
    {"veksys_memory_peak_bytes", "Most that the controller has granted.", [](const auto& e) { return e.peakBytes; }},
    {"veksys_memory_releasable_bytes", "Memory that consumers could release.",
     [](const auto& e) { return e.keptBytes; }},
};

constexpr Family kProcessFamily = {"veksys_memory_processes", "Processes of the instance that have memory.",
                                   [](const auto& e) { return e.sizeBytes; }};

void putHead(Output& out, const Family& family, bool isCounter) {
  const auto line = [&](std::string_view what, std::string_view text) {
    out.put(what);
    out.put(family.name);
    out.put(' ');
    out.put(text);
    out.lineEnd();
  };
  line("# TYPE ", isCounter ? "counter" : "gauge");
  if (family.name.ends_with("_bytes")) line("# UNIT ", "bytes");
  line("# HELP ", family.help);
}

void putFamily(Output& out, const Family& family, const std::vector<Sample>& samples) {
  if (samples.empty()) return;
  std::map<std::string, std::uint64_t> values;
  for (const Sample& sample : samples) values[sample.labels] += family.value(sample.entry);
  const bool isCounter = family.name.ends_with("_refusals");
  putHead(out, family, isCounter);
  for (const auto& [labels, value] : values) {
    out.put(family.name);
    if (isCounter) out.put("_total");
    out.put(labels);
    out.put("} ");
    out.decimal(value);
    out.lineEnd();
  }
}

struct Samples {
  std::vector<Sample> sets;
  std::vector<Sample> pools;
  std::vector<Sample> consumers;
  std::vector<Sample> processes;
  std::vector<Sample> controller;

  void addSet(const Labels& of, const MemorySet& set) {
    const Labels labels = Labels(of).addSet(set.entry);
    sets.push_back({labels.text(), set.entry});
    for (const SqloMemEntry& pool : set.pools)
      pools.push_back({Labels(labels).add("pool", static_cast<const char*>(pool.name)).text(), pool});
  }

  void addProcess(const MemoryProcess& process) {
    const Labels labels = Labels().addProcess(process);
    for (const MemorySet& set : process.sets) addSet(labels, set);
    for (const SqloMemEntry& consumer : process.consumers)
      consumers.push_back({Labels(labels).add("consumer", static_cast<const char*>(consumer.name)).text(), consumer});
    SqloMemEntry one = {};
    one.sizeBytes = 1;
    processes.push_back({Labels().add("state", processStateName(process.state)).text(), one});
  }

  void addController(const SqloMemPartitionStats& stats) {
    if (!stats.active) return;
    SqloMemEntry entry = {};
    entry.limitBytes = stats.upperBound;
    entry.sizeBytes = stats.currentSize;
    entry.peakBytes = stats.usageHighWater;
    entry.keptBytes = stats.cachedMemory;
    controller.push_back({Labels().text(), entry});
  }
};

}  // namespace

void putMemoryAsMetrics(Output& out, const MemoryPicture& picture) {
  Samples samples;
  samples.addController(picture.controller);
  for (const MemoryProcess& process : picture.processes) samples.addProcess(process);
  for (const MemorySet& set : picture.sharedSets) samples.addSet(Labels().add("state", "shared"), set);
  for (const Family& family : kControllerFamilies) putFamily(out, family, samples.controller);
  putFamily(out, kProcessFamily, samples.processes);
  for (const Family& family : kSetFamilies) putFamily(out, family, samples.sets);
  for (const Family& family : kPoolFamilies) putFamily(out, family, samples.pools);
  for (const Family& family : kConsumerFamilies) putFamily(out, family, samples.consumers);
  out.put("# EOF\n");
}

}  // namespace veksys
