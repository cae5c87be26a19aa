// Chrome trace-event JSON.
//
// Calls are pairs of B and E events, everything else instants. Times count in microseconds from the first record, since
// a double could not hold nanoseconds since 1970.
#include <string>

#include "clock.h"
#include "file_output.h"
#include "trace_calls.h"
#include "trace_export.h"
#include "trace_items.h"
#include "trace_views.h"

namespace veksys {
namespace {

constexpr std::size_t kFlushBytes = 256U << 10;

class ChromeView : public TraceView {
 public:
  ChromeView(TracePass& pass, FileOutput& file) : pass_(pass), file_(file) {
    file_.out().put("{\"displayTimeUnit\":\"ns\",\"traceEvents\":[");
  }

  void see(const TraceSight& sight) override {
    if (sight.shown) introduce(sight);
    switch (sight.record.kind) {
      case SqltRecordKind::kEntry:
        return seeEntry(sight);
      case SqltRecordKind::kExit:
        return seeExit(sight);
      case SqltRecordKind::kGap:
        stacks_[sight.thread].meetGap();
        [[fallthrough]];
      default:
        if (sight.shown) instant(sight);
    }
  }

  std::uint64_t finish() {
    Output& out = file_.out();
    out.put("\n],\"otherData\":{\"instance\":\"");
    putSafe(out, pass_.info().instance);
    out.put("\",\"begin\":\"");
    ClockText::iso(out, beginNs_);
    out.put("\"}}\n");
    return file_.finish();
  }

 private:
  template <class Fill>
  void event(const TraceThread& thread, std::string_view phase, std::string_view name, Fill fill) {
    Output& out = file_.out();
    out.put(first_ ? "\n" : ",\n");
    first_ = false;
    json_.begin(out);
    json_.member("ph", phase);
    json_.member("name", name);
    json_.member("pid", thread.who.processId);
    json_.member("tid", thread.who.threadId);
    fill(json_);
    json_.EndObject();
    if (out.size() >= kFlushBytes) file_.flush();
  }

  void putMoment(std::int64_t moment) {
    const std::int64_t ns = std::max<std::int64_t>(nsBetween(beginNs_, moment), 0);
    json_.key("ts");
    json_.number([&](Text& text) {
      text.decimal(static_cast<std::uint64_t>(ns / 1000));
      text.put('.');
      text.decimalZeros(static_cast<std::uint64_t>(ns % 1000), 3);
    });
  }

  void name(const TraceThread& thread, std::string_view what, const char* given) {
    event(thread, "M", what, [&](JsonLine& json) {
      json.object("args");
      json.key("name");
      json.safe(given);
      json.EndObject();
    });
  }

  void introduce(const TraceSight& sight) {
    const TraceThread& thread = sight.thread;
    if (first_) beginNs_ = sight.record.realtimeNs;
    if (introduced_.size() <= thread.index) introduced_.resize(thread.index + 1);
    if (introduced_[thread.index] || thread.who.serial == 0) return;
    introduced_[thread.index] = true;
    name(thread, "process_name", thread.who.processName);
    name(thread, "thread_name", thread.who.threadName);
  }

  void putArguments(const TraceSight& sight) {
    json_.object("args");
    if (sight.record.kind == SqltRecordKind::kGap)
      json_.member("missing_records", sight.record.gapRecords);
    else
      putDetailMembers(json_, pass_, sight.record);
    json_.EndObject();
  }

  void seeEntry(const TraceSight& sight) {
    OpenCall& call = stacks_[sight.thread].enter(sight.function, sight.record);
    call.shown = sight.shown;
    if (!sight.shown) return;
    event(sight.thread, "B", sight.function.name, [&](JsonLine& json) {
      putMoment(sight.record.realtimeNs);
      json.member("cat", std::string_view(sight.function.component));
      putArguments(sight);
    });
  }

  void end(const TraceSight& sight, const OpenCall& call, bool recorded) {
    event(sight.thread, "E", call.function->name, [&](JsonLine& json) {
      putMoment(sight.record.realtimeNs);
      if (recorded) return putArguments(sight);
      json.object("args");
      json.member("exit", "not recorded");
      json.EndObject();
    });
  }

  void seeExit(const TraceSight& sight) {
    CallStack& stack = stacks_[sight.thread];
    const std::size_t level = stack.find(sight.function);
    if (level == CALL_NOT_FOUND) {
      if (sight.shown) instant(sight);
      return;
    }
    for (; stack.depth() > level; stack.leave())
      if (stack.top().shown) end(sight, stack.top(), stack.depth() == level + 1);
  }

  void instant(const TraceSight& sight) {
    Text& text = title_;
    text.clear();
    if (sight.record.kind == SqltRecordKind::kGap) {
      putGap(text, sight.record);
    } else {
      text.put(sight.function.name);
      text.put(' ');
      text.put(kindName(sight.record.kind));
      if (sight.record.kind != SqltRecordKind::kExit) putProbe(text, sight.record.probe);
    }
    event(sight.thread, "i", text.view(), [&](JsonLine& json) {
      putMoment(sight.record.realtimeNs);
      json.member("s", "t");
      json.member("cat",
                  sight.record.kind == SqltRecordKind::kGap ? "gap" : std::string_view(sight.function.component));
      putArguments(sight);
    });
  }

  TracePass& pass_;
  FileOutput& file_;
  JsonLine json_;
  Text title_;  // of an instant
  CallStacks stacks_;
  std::vector<bool> introduced_;
  bool first_ = true;         // no event yet
  std::int64_t beginNs_ = 0;  // of the first event
};

}  // namespace

std::uint64_t exportChrome(TracePass& pass, const std::string& file) {
  FileOutput output(file);
  ChromeView view(pass, output);
  pass.run(view);
  return view.finish();
}

}  // namespace veksys
