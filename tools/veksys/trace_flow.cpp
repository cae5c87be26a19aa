// veksys trace flow: the calls of each thread as an indented tree.
//
// A call that makes no other and leaves no record of its own is one line; so an entry waits until the thread's next
// record tells which of the two it is. With an outcome asked for (--errors, --rc) a call is shown once something inside
// it has that outcome, together with the calls around it.
#include <optional>

#include "spool.h"
#include "trace_items.h"
#include "trace_views.h"

namespace veksys {
namespace {

constexpr std::uint32_t kItemBytes = 80;       // of a text on one line
constexpr std::uint32_t kArgumentBytes = 200;  // of all items of an entry
constexpr std::size_t kIndentMost = 40;        // levels; deeper ones tell their depth
constexpr std::size_t kTimeWidth = 18;         // 09:14:22.123456789
constexpr std::string_view kRed = "\033[31m";
constexpr std::string_view kPlain = "\033[0m";

class FlowView : public TraceView {
 public:
  FlowView(TracePass& pass, Command& command, const FlowOptions& options)
      : pass_(pass), command_(command), options_(options), byOutcome_(pass.filter().hasOutcome()) {}

  void see(const TraceSight& sight) override {
    if (pendingOf_ != nullptr && pendingOf_ != &sight.thread) showPending();
    switch (sight.record.kind) {
      case SqltRecordKind::kEntry:
        return seeEntry(sight);
      case SqltRecordKind::kExit:
        return seeExit(sight);
      case SqltRecordKind::kGap:
        return seeGap(sight);
      default:
        return seePoint(sight);
    }
  }

  void finish(bool whole) {
    if (whole && pendingOf_ != nullptr) finishThread(*pendingOf_);
    showPending();
    if (whole)
      for (const auto& thread : pass_.threads()) finishThread(*thread);
    if (!options_.merged) spool_.deliver(command_.out);
  }

 private:
  // ---- records --------------------------------------------------------------------------------------------------

  void seeEntry(const TraceSight& sight) {
    showPending();
    CallStack& stack = stacks_[sight.thread];
    OpenCall& call = stack.enter(sight.function, sight.record);
    call.chosen =
        byOutcome_ ? sight.function.chosen && pass_.filter().choosesTime(sight.record.realtimeNs) : sight.shown;
    if (!call.chosen) return;
    if (sight.record.itemCount > 0 || stack.depth() == 1)
      describeArguments(sight.record, stack.depth(), call.arguments);
    if (byOutcome_) return;
    call.shown = true;
    pendingOf_ = &sight.thread;
    if (command_.json) showPending();
  }

  void describeArguments(const SqltTraceRecord& record, std::size_t depth, Text& text) const {
    if (record.itemCount > 0) {
      text.put('(');
      putItems(text, pass_.reader(), record, 0, options_.full ? ITEM_WHOLE : kItemBytes);
      if (!options_.full && text.size() > kArgumentBytes) {
        text.cutTo(kArgumentBytes);
        text.put(" ...");
      }
      text.put(')');
    }
    if (depth > 1 || static_cast<std::uint64_t>(record.value) == SQLT_NO_ENGINE_UNIT) return;
    text.put(" [unit ");
    text.decimal(static_cast<std::uint64_t>(record.value));
    text.put(']');
  }

  void seeExit(const TraceSight& sight) {
    CallStack& stack = stacks_[sight.thread];
    const std::size_t level = stack.find(sight.function);
    if (level == CALL_NOT_FOUND) {
      if (sight.shown) showExitAlone(sight);
      return;
    }
    while (stack.depth() > level + 1) abandon(sight.thread, stack, sight.record.realtimeNs, "exit not recorded");
    OpenCall& call = stack.top();
    const bool isLeaf = pendingOf_ == &sight.thread || (byOutcome_ && sight.shown && !call.shown);
    if (isLeaf) {
      pendingOf_ = nullptr;
      call.shown = false;
      if (byOutcome_) showAround(sight.thread, stack, level);
      command_.json ? showLeafAsJson(sight, call) : showLeaf(sight, call);
    } else if (call.shown || (sight.shown && !byOutcome_)) {
      call.shown = false;
      showExit(sight, call);
    }
    stack.leave();
  }

  void seeGap(const TraceSight& sight) {
    stacks_[sight.thread].meetGap();
    if (!sight.shown) return;
    showPending();
    if (command_.json) return showRecordAsJson(sight);
    Text& text = beginLine(sight.thread, sight.record.realtimeNs, std::nullopt, false);
    indent(text, sight.thread);
    text.put("--- ");
    putGap(text, sight.record);
    text.put(" ---");
    endLine(text, sight.thread);
  }

  void seePoint(const TraceSight& sight) {
    if (!sight.shown) return;
    showPending();
    CallStack& stack = stacks_[sight.thread];
    if (byOutcome_) showAround(sight.thread, stack, stack.depth());
    if (command_.json) return showRecordAsJson(sight);
    const bool failed =
        sight.record.kind == SqltRecordKind::kError || sight.record.kind == SqltRecordKind::kTranslation;
    Text& text = beginLine(sight.thread, sight.record.realtimeNs, std::nullopt, false);
    indent(text, sight.thread);
    paint(text, failed, kRed);
    text.put(kindName(sight.record.kind));
    // Points of a function that has no open call (its entry is not traced) name it.
    if (stack.depth() == 0 || stack.top().function != &sight.function) {
      text.put(' ');
      text.put(sight.function.name);
    }
    putDetails(text, pass_, sight.record, options_.full ? ITEM_WHOLE : kItemBytes);
    paint(text, failed, kPlain);
    endLine(text, sight.thread);
    if (options_.full) dumpItems(sight);
  }

  // ---- lines ----------------------------------------------------------------------------------------------------

  void showPending() {
    if (pendingOf_ == nullptr) return;
    const TraceThread& thread = *std::exchange(pendingOf_, nullptr);
    OpenCall& call = stacks_[thread].top();
    call.shown = false;
    showEntry(thread, call);
    call.shown = true;
  }

  void showEntry(const TraceThread& thread, const OpenCall& call) {
    if (command_.json) return showEntryAsJson(thread, call);
    Text& text = beginLine(thread, call.realtimeNs, std::nullopt, false);
    indent(text, thread);
    text.put(call.function->name);
    text.put(call.arguments.view());
    text.put(" {");
    endLine(text, thread);
  }

  // The chosen calls around a level that do not stand in the output yet.
  void showAround(const TraceThread& thread, CallStack& stack, std::size_t level) {
    for (std::size_t i = 0; i < level; ++i) {
      OpenCall& call = stack[i];
      if (!call.chosen || call.shown) continue;
      showEntry(thread, call);
      call.shown = true;
    }
  }

  void putOutcome(Text& text, const SqltTraceRecord& record) {
    const bool failed = pass_.codes().isFailure(record.value);
    text.put(" = ");
    paint(text, failed, kRed);
    pass_.codes().put(text, record.value);
    paint(text, failed, kPlain);
    if (record.itemCount == 0) return;
    text.put("  ");
    putItems(text, pass_.reader(), record, 0, options_.full ? ITEM_WHOLE : kItemBytes);
  }

  void showLeaf(const TraceSight& sight, const OpenCall& call) {
    Text& text = beginLine(sight.thread, call.realtimeNs, durationOf(sight, call), call.spansGap);
    indent(text, sight.thread);
    text.put(call.function->name);
    text.put(call.arguments.view());
    putOutcome(text, sight.record);
    endLine(text, sight.thread);
  }

  void showExit(const TraceSight& sight, const OpenCall& call) {
    if (command_.json) return showExitAsJson(sight, &call);
    Text& text = beginLine(sight.thread, sight.record.realtimeNs, durationOf(sight, call), call.spansGap);
    indent(text, sight.thread);
    text.put("} ");
    text.put(call.function->name);
    putOutcome(text, sight.record);
    endLine(text, sight.thread);
  }

  void showExitAlone(const TraceSight& sight) {
    showPending();
    if (byOutcome_) showAround(sight.thread, stacks_[sight.thread], stacks_[sight.thread].depth());
    if (command_.json) return showExitAsJson(sight, nullptr);
    Text& text = beginLine(sight.thread, sight.record.realtimeNs, std::nullopt, false);
    indent(text, sight.thread);
    text.put("} ");
    text.put(sight.function.name);
    putOutcome(text, sight.record);
    text.put("  (entry not recorded)");
    endLine(text, sight.thread);
  }

  // Ends the innermost call without an exit of its own.
  void abandon(const TraceThread& thread, CallStack& stack, std::int64_t moment, std::string_view why) {
    OpenCall& call = stack.top();
    const bool isLeaf = pendingOf_ == &thread;
    if (isLeaf) pendingOf_ = nullptr;
    if (std::exchange(call.shown, false)) {
      if (command_.json) {
        showAbandonedAsJson(thread, call, why);
      } else {
        Text& text = beginLine(thread, isLeaf ? call.realtimeNs : moment, std::nullopt, false);
        indent(text, thread);
        text.put(isLeaf ? "" : "} ");
        text.put(call.function->name);
        if (isLeaf) text.put(call.arguments.view());
        text.put("  (");
        text.put(why);
        text.put(')');
        endLine(text, thread);
      }
    }
    stack.leave();
  }

  void finishThread(const TraceThread& thread) {
    CallStack& stack = stacks_[thread];
    while (stack.depth() > 0) abandon(thread, stack, pass_.totals().lastNs, "still open at the end of the trace");
  }

  void dumpItems(const TraceSight& sight) {
    for (std::uint32_t i = 0; i < sight.record.itemCount; ++i) {
      if (!needsDump(sight.record.items[i])) continue;
      putDump(textOf(sight.thread), sight.record.items[i], ITEM_WHOLE, kTimeWidth + DURATION_WIDTH + 6);
      settle(sight.thread);
    }
  }

  // ---- JSON -----------------------------------------------------------------------------------------------------

  std::size_t shownDepth(const TraceThread& thread) {
    CallStack& stack = stacks_[thread];
    std::size_t depth = 0;
    for (std::size_t level = 0; level < stack.depth(); ++level) depth += stack[level].shown ? 1U : 0U;
    return depth;
  }

  template <class Fill>
  void jsonLine(const TraceThread& thread, Fill fill) {
    Text& text = textOf(thread);
    json_.begin(text);
    fill(json_);
    json_.member("depth", shownDepth(thread));
    json_.EndObject();
    endLine(text, thread);
  }

  void showRecordAsJson(const TraceSight& sight) {
    jsonLine(sight.thread, [&](JsonLine& json) { putRecordMembers(json, pass_, sight); });
  }

  void putCall(JsonLine& json, const TraceThread& thread, const OpenCall& call, std::string_view kind) {
    putMomentMembers(json, call.realtimeNs);
    json.member("kind", kind);
    json.fragment(thread.members);
    json.fragment(call.function->members);
    if (call.arguments.size() != 0) json.member("arguments", call.arguments.view());
  }

  void showEntryAsJson(const TraceThread& thread, const OpenCall& call) {
    jsonLine(thread, [&](JsonLine& json) { putCall(json, thread, call, "entry"); });
  }

  void showExitAsJson(const TraceSight& sight, const OpenCall* call) {
    jsonLine(sight.thread, [&](JsonLine& json) {
      putRecordMembers(json, pass_, sight);
      json.member("matched", call != nullptr);
      if (call == nullptr) return;
      json.member("duration_ns", durationOf(sight, *call));
      json.member("spans_gap", call->spansGap);
    });
  }

  void showLeafAsJson(const TraceSight& sight, OpenCall& call) {
    showEntryAsJson(sight.thread, call);
    showExitAsJson(sight, &call);
  }

  void showAbandonedAsJson(const TraceThread& thread, const OpenCall& call, std::string_view why) {
    jsonLine(thread, [&](JsonLine& json) {
      putCall(json, thread, call, "open");
      json.member("reason", why);
    });
  }

  // ---- layout ---------------------------------------------------------------------------------------------------

  Text& textOf(const TraceThread& thread) {
    if (options_.merged) return command_.out;
    Text& text = spool_.block(thread.index);
    if (command_.json) return text;
    if (headed_.size() <= thread.index) headed_.resize(thread.index + 1);
    if (headed_[thread.index]) return text;
    headed_[thread.index] = true;
    putThread(text, thread);
    return text;
  }

  // "2025-11-21  process 4711 engine, thread 4714 reader, partition 0"
  void putThread(Text& text, const TraceThread& thread) {
    const SqltTraceThread& who = thread.who;
    clock_.date(text, thread.firstNs);
    text.put("  ");
    if (who.serial == 0) return text.put("no known thread\n");
    text.put("process ");
    text.decimal(who.processId);
    text.put(' ');
    putSafe(text, who.processName);
    text.put(", thread ");
    text.decimal(who.threadId);
    text.put(' ');
    putSafe(text, who.threadName);
    text.put(", partition ");
    text.signedDecimal(who.partition);
    text.put('\n');
  }

  std::uint64_t durationOf(const TraceSight& sight, const OpenCall& call) const {
    return sight.record.ticks > call.ticks ? pass_.nanoseconds(sight.record.ticks - call.ticks) : 0;
  }

  // The columns before the tree. A duration across a gap is marked, for it may be that of two calls.
  Text& beginLine(const TraceThread& thread, std::int64_t moment, std::optional<std::uint64_t> ns, bool spansGap) {
    Text& text = textOf(thread);
    clock_.timeOfDay(text, moment);
    text.put("  ");
    if (options_.merged) {
      const std::size_t start = text.size();
      text.decimal(thread.who.processId);
      text.put(':');
      text.decimal(thread.who.threadId);
      text.padTo(start, 16);
    }
    if (ns.has_value())
      putDuration(text, *ns);
    else
      text.fill(' ', DURATION_WIDTH);
    text.put(spansGap ? "~ " : "  ");
    return text;
  }

  void indent(Text& text, const TraceThread& thread) {
    const std::size_t depth = shownDepth(thread);
    for (std::size_t i = 0; i < std::min(depth, kIndentMost); ++i) text.put("| ");
    if (depth <= kIndentMost) return;
    text.put('[');
    text.decimal(depth);
    text.put("] ");
  }

  void endLine(Text& text, const TraceThread& thread) {
    text.put('\n');
    settle(thread);
  }

  void settle(const TraceThread& thread) {
    if (!options_.merged)
      spool_.settle(thread.index);
    else if (command_.out.size() >= kMergedFlush)
      command_.out.flush();
  }

  void paint(Text& text, bool really, std::string_view code) const {
    if (really && command_.colour) text.put(code);
  }

  static constexpr std::size_t kMergedFlush = 256U << 10;

  TracePass& pass_;
  Command& command_;
  FlowOptions options_;
  bool byOutcome_;
  ClockText clock_;
  JsonLine json_;
  CallStacks stacks_;
  Spool spool_;
  std::vector<bool> headed_;
  const TraceThread* pendingOf_ = nullptr;  // the thread whose innermost call still waits for its line
};

}  // namespace

int runFlow(TracePass& pass, Command& command, const FlowOptions& options) {
  FlowView view(pass, command, options);
  pass.run(view);
  view.finish(!pass.filter().limit().has_value() || pass.totals().shown < *pass.filter().limit());
  return EXIT_DONE;
}

}  // namespace veksys
