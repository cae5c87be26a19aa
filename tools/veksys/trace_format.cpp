// veksys trace format: one line per record.
#include "trace_items.h"
#include "trace_views.h"

namespace veksys {
namespace {

constexpr std::uint32_t kItemBytes = 80;  // of a text or of bytes on one line

class FormatView : public TraceView {
 public:
  FormatView(TracePass& pass, Command& command) : pass_(pass), command_(command) {}

  void see(const TraceSight& sight) override {
    if (!sight.shown) return;
    if (command_.json) return seeJson(sight);
    Output& out = command_.out;
    putHead(sight);
    if (sight.record.kind == SqltRecordKind::kGap)
      putGap(out, sight.record);
    else
      putBody(sight);
    out.lineEnd();
  }

 private:
  // "2025-11-21 09:14:22.123456789  4711:4714    entry  "
  void putHead(const TraceSight& sight) {
    Output& out = command_.out;
    clock_.dateTime(out, sight.record.realtimeNs);
    out.put("  ");
    const std::size_t start = out.size();
    out.decimal(sight.thread.who.processId);
    out.put(':');
    out.decimal(sight.thread.who.threadId);
    out.padTo(start, 16);
    const std::size_t kind = out.size();
    out.put(kindName(sight.record.kind));
    out.padTo(kind, 13);
  }

  void putBody(const TraceSight& sight) {
    Output& out = command_.out;
    const std::size_t start = out.size();
    out.put(sight.function.component);
    out.padTo(start, 8);
    out.put(sight.function.name);
    putDetails(out, pass_, sight.record, kItemBytes);
  }

  void seeJson(const TraceSight& sight) {
    json_.begin(command_.out);
    putRecordMembers(json_, pass_, sight);
    json_.EndObject();
    command_.out.lineEnd();
  }

  TracePass& pass_;
  Command& command_;
  ClockText clock_;
  JsonLine json_;
};

}  // namespace

void putDetails(Text& text, TracePass& pass, const SqltTraceRecord& record, std::uint32_t most) {
  std::uint32_t first = 0;
  switch (record.kind) {
    case SqltRecordKind::kEntry:
      if (static_cast<std::uint64_t>(record.value) == SQLT_NO_ENGINE_UNIT) break;
      text.put(" unit ");
      text.signedDecimal(record.value);
      break;
    case SqltRecordKind::kExit:
      text.put(" rc ");
      pass.codes().put(text, record.value);
      break;
    case SqltRecordKind::kError:
      putProbe(text, record.probe);
      if (record.value == 0) break;
      text.put(" rc ");
      pass.codes().put(text, record.value);
      break;
    case SqltRecordKind::kTranslation:
      putProbe(text, record.probe);
      text.put(" rc ");
      pass.codes().put(text, record.value);
      text.put(" became ");
      pass.codes().put(text, translatedTo(record).value_or(0));
      first = 1;
      break;
    case SqltRecordKind::kEvent:
    case SqltRecordKind::kCorrelator:
      putProbe(text, record.probe);
      text.put(record.kind == SqltRecordKind::kEvent ? " event " : " correlator ");
      text.decimal(static_cast<std::uint64_t>(record.value));
      break;
    default:
      putProbe(text, record.probe);
      break;
  }
  if (first >= record.itemCount) return;
  text.put("  ");
  putItems(text, pass.reader(), record, first, most);
}

void putProbe(Text& text, std::uint32_t probe) {
  text.put(" probe ");
  text.decimal(probe);
}

int runFormat(TracePass& pass, Command& command) {
  FormatView view(pass, command);
  pass.run(view);
  return EXIT_DONE;
}

}  // namespace veksys
