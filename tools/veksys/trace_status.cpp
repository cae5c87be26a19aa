// veksys trace status: whether there is a trace, what it holds, who writes into it, what fires.

#include <map>

#include "command.h"
#include "instance.h"
#include "trace_mask.h"
#include "trace_pass.h"
#include "trace_views.h"
#include "veksys/diag/trace_control.h"
#include "veksys/host.h"

namespace veksys {
namespace {

struct ProcessFigures {
  std::string name;
  std::uint64_t threads = 0;
  std::uint64_t records = 0;
  std::int64_t lastNs = 0;
};

// Counts the records of each thread.
class StatusView : public TraceView {
 public:
  void see(const TraceSight& sight) override {
    if (sight.thread.index >= threads_.size()) threads_.resize(sight.thread.index + 1);
    if (sight.record.kind == SqltRecordKind::kGap) return;
    ++threads_[sight.thread.index].records;
    threads_[sight.thread.index].lastNs = sight.record.realtimeNs;
  }

  std::map<std::uint32_t, ProcessFigures> processes(const TracePass& pass) const {
    std::map<std::uint32_t, ProcessFigures> processes;
    for (const auto& thread : pass.threads()) {
      const ThreadFigures& counted = threads_[thread->index];
      if (counted.records == 0) continue;
      ProcessFigures& process = processes[thread->who.processId];
      process.name = thread->who.processName;
      ++process.threads;
      process.records += counted.records;
      process.lastNs = std::max(process.lastNs, counted.lastNs);
    }
    return processes;
  }

 private:
  struct ThreadFigures {
    std::uint64_t records = 0;
    std::int64_t lastNs = 0;
  };
  std::vector<ThreadFigures> threads_;
};

class StatusText {
 public:
  StatusText(Output& out, const TracePass& pass) : out_(out), pass_(pass), info_(pass.info()) {}

  void put(const StatusView& view) {
    label("Instance");
    out_.put(static_cast<const char*>(info_.instance));
    label("Trace");
    putState();
    label("Size");
    putSize();
    label("Records");
    putRecords();
    label("Overwritten");
    out_.grouped(info_.overwrittenRecords);
    out_.put(" records in ");
    out_.grouped(info_.overwrittenSegments);
    out_.put(" segments, since the trace was created or cleared");
    label("Lost");
    out_.grouped(info_.lostRecords);
    out_.put(" records for want of a free segment");
    if (pass_.totals().damagedBytes != 0) putDamage();
    if (!info_.fromFile) putMask();
    out_.put('\n');
    putProcesses(view);
  }

 private:
  void label(std::string_view name) {
    if (!std::exchange(first_, false)) out_.put('\n');
    const std::size_t start = out_.size();
    out_.put(name);
    out_.padTo(start, 13);
  }

  void putState() {
    out_.put(info_.fromFile ? "a dump" : info_.active ? "on" : "off; the records stay readable");
    out_.put(info_.fromFile ? " of " : ", created ");
    clock_.date(out_, info_.fromFile ? info_.readRealtimeNs : info_.createdRealtimeNs);
    out_.put(' ');
    const std::size_t start = out_.size();
    clock_.timeOfDay(out_, info_.fromFile ? info_.readRealtimeNs : info_.createdRealtimeNs);
    out_.cutTo(start + 8);
    if (info_.fromFile) return;
    out_.put(", ");
    putSpan(out_, nsBetween(info_.createdRealtimeNs, info_.readRealtimeNs));
    out_.put(" ago");
  }

  void putSize() {
    putBytes(out_, info_.ringBytes);
    out_.put(" in ");
    out_.grouped(info_.segmentCount);
    out_.put(" segments of ");
    putBytes(out_, info_.segmentBytes);
    out_.put("; ");
    out_.grouped(info_.segmentsUsed);
    out_.put(" hold records, ");
    out_.grouped(info_.segmentsOwned);
    out_.put(" are held by threads");
  }

  void putRecords() {
    const PassTotals& totals = pass_.totals();
    out_.grouped(totals.records);
    if (totals.records == 0) return;
    out_.put(" over ");
    putSpan(out_, nsBetween(totals.firstNs, totals.lastNs));
    out_.put(", from ");
    clock_.dateTime(out_, totals.firstNs);
    out_.put(" to ");
    clock_.timeOfDay(out_, totals.lastNs);
  }

  void putDamage() {
    label("Damaged");
    out_.grouped(pass_.totals().damagedBytes);
    out_.put(" bytes cannot be read; the views show where");
  }

  void putMask() {
    const TraceMask mask = currentMask();
    label("Fires");
    putTypes(out_, mask.types);
    if (mask.types == 0) return;
    out_.put(" in ");
    putComponents(out_, mask.components);
    if (!mask.uniform) out_.put(" (not all in each; `veksys trace mask` tells)");
  }

  void putProcesses(const StatusView& view) {
    const auto processes = view.processes(pass_);
    if (processes.empty()) return;
    out_.put("\n   Process  Name              Threads      Records  Last record\n");
    for (const auto& [id, process] : processes) {
      out_.decimalRight(id, 10);
      out_.put("  ");
      const std::size_t start = out_.size();
      putSafe(out_, process.name);
      out_.padTo(start, 16);
      out_.decimalRight(process.threads, 9);
      out_.decimalRight(process.records, 13);
      out_.put("  ");
      clock_.timeOfDay(out_, process.lastNs);
      out_.put('\n');
    }
  }

  Output& out_;
  const TracePass& pass_;
  const SqltTraceInfo& info_;
  ClockText clock_;
  bool first_ = true;
};

void putMoment(JsonDocument& json, std::string_view name, std::int64_t moment) {
  Text text;
  ClockText::iso(text, moment);
  json.member(name, text.view());
}

void putJson(Output& out, const TracePass& pass, const StatusView& view) {
  const SqltTraceInfo& info = pass.info();
  JsonDocument json;
  json.begin(out);
  json.member("instance", static_cast<const char*>(info.instance));
  json.member("exists", true);
  json.member("from_file", info.fromFile);
  json.member("active", info.active);
  putMoment(json, "created", info.createdRealtimeNs);
  putMoment(json, "read", info.readRealtimeNs);
  json.member("ring_bytes", info.ringBytes);
  json.member("segment_bytes", info.segmentBytes);
  json.member("segments", info.segmentCount);
  json.member("segments_with_records", info.segmentsUsed);
  json.member("segments_held", info.segmentsOwned);
  json.member("records", pass.totals().records);
  putMoment(json, "first_record", pass.totals().firstNs);
  putMoment(json, "last_record", pass.totals().lastNs);
  json.member("overwritten_records", info.overwrittenRecords);
  json.member("overwritten_segments", info.overwrittenSegments);
  json.member("lost_records", info.lostRecords);
  json.member("damaged_bytes", pass.totals().damagedBytes);
  if (!info.fromFile) putMaskMembers(json, currentMask());
  json.array("processes");
  for (const auto& [id, process] : view.processes(pass)) {
    json.StartObject();
    json.member("process", id);
    Text name;
    putSafe(name, process.name);
    json.member("name", name.view());
    json.member("threads", process.threads);
    json.member("records", process.records);
    putMoment(json, "last_record", process.lastNs);
    json.EndObject();
  }
  json.EndArray();
  json.EndObject();
  out.put('\n');
}

// "There is none" is an answer too: as JSON it is a document, and in both forms the status is 1.
void answerNone(Command& command) {
  if (!command.json) return;
  JsonDocument json;
  json.begin(command.out);
  json.member("instance", vekInstanceName());
  json.member("exists", false);
  json.member("active", false);
  json.EndObject();
  command.out.put('\n');
}

int runStatus(Command& command, const std::string& file) {
  if (file.empty() && !instanceHasTrace()) answerNone(command);
  TracePass pass(file, FilterOptions());
  StatusView view;
  pass.run(view);
  if (command.json)
    putJson(command.out, pass, view);
  else
    StatusText(command.out, pass).put(view);
  return EXIT_DONE;
}

}  // namespace

void addTraceStatus(CLI::App& trace, Command& command) {
  auto file = std::make_shared<std::string>();
  CLI::App* status = trace.add_subcommand("status", "Tell whether there is a trace, what it holds and what fires");
  status->add_option("FILE", *file, "A file written by `veksys trace dump`; the instance's trace when left out")
      ->type_name("");
  status->callback([&command, file] { command.run = [&command, file] { return runStatus(command, *file); }; });
}

}  // namespace veksys
