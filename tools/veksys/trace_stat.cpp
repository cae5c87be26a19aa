// veksys trace stat: what each function did, in numbers.
//
// Total is the time from entry to exit, for calls of a function inside itself the outermost only; self is the time that
// was not spent in other traced calls. A call that was open across a gap is counted but not timed.
#include <algorithm>
#include <memory>

#include "histogram.h"
#include "trace_views.h"

namespace veksys {
namespace {

struct FunctionFigures {
  const TraceFunction* function = nullptr;
  std::uint64_t calls = 0;
  std::uint64_t timed = 0;
  std::uint64_t failed = 0;
  std::uint64_t errors = 0;  // error points
  std::uint64_t totalTicks = 0;
  std::uint64_t selfTicks = 0;
  std::uint64_t mostTicks = 0;
  std::unique_ptr<Histogram> ticks;
};

class StatView : public TraceView {
 public:
  explicit StatView(TracePass& pass) : pass_(pass) {}

  void see(const TraceSight& sight) override {
    switch (sight.record.kind) {
      case SqltRecordKind::kEntry:
        stacks_[sight.thread].enter(sight.function, sight.record);
        return;
      case SqltRecordKind::kExit:
        return seeExit(sight);
      case SqltRecordKind::kGap:
        return stacks_[sight.thread].meetGap();
      case SqltRecordKind::kError:
      case SqltRecordKind::kTranslation:
        if (sight.shown) ++figuresOf(sight.function).errors;
        return;
      default:
        return;
    }
  }

  std::vector<FunctionFigures>& figures() noexcept { return figures_; }
  std::uint64_t unmatched() const noexcept { return unmatched_; }

  std::uint64_t stillOpen() {
    std::uint64_t open = 0;
    for (const CallStack& stack : stacks_.all()) open += stack.depth();
    return open;
  }

 private:
  FunctionFigures& figuresOf(const TraceFunction& function) {
    if (function.index >= figures_.size()) figures_.resize(function.index + 1);
    FunctionFigures& figures = figures_[function.index];
    figures.function = &function;
    return figures;
  }

  void seeExit(const TraceSight& sight) {
    CallStack& stack = stacks_[sight.thread];
    const std::size_t level = stack.find(sight.function);
    if (level == CALL_NOT_FOUND) {
      unmatched_ += sight.shown ? 1U : 0U;
      if (sight.shown) countCall(sight);
      return;
    }
    while (stack.depth() > level + 1) stack.leave();
    const OpenCall& call = stack.top();
    const std::uint64_t ticks = sight.record.ticks > call.ticks ? sight.record.ticks - call.ticks : 0;
    if (level > 0) stack[level - 1].insideTicks += ticks;
    if (sight.shown) {
      FunctionFigures& figures = countCall(sight);
      if (!call.spansGap) time(figures, call, ticks);
    }
    stack.leave();
  }

  FunctionFigures& countCall(const TraceSight& sight) {
    FunctionFigures& figures = figuresOf(sight.function);
    ++figures.calls;
    figures.failed += pass_.codes().isFailure(sight.record.value) ? 1U : 0U;
    return figures;
  }

  static void time(FunctionFigures& figures, const OpenCall& call, std::uint64_t ticks) {
    ++figures.timed;
    figures.totalTicks += call.nested ? 0 : ticks;
    figures.selfTicks += ticks - std::min(ticks, call.insideTicks);
    figures.mostTicks = std::max(figures.mostTicks, ticks);
    if (figures.ticks == nullptr) figures.ticks = std::make_unique<Histogram>();
    figures.ticks->add(ticks);
  }

  TracePass& pass_;
  CallStacks stacks_;
  std::vector<FunctionFigures> figures_;
  std::uint64_t unmatched_ = 0;
};

// ---- the table --------------------------------------------------------------------------------------------------

struct Row {
  const TraceFunction* function;
  std::uint64_t calls, timed, failed, errors;
  std::uint64_t total, self, p50, p99, max;  // nanoseconds
};

struct SortKey {
  std::string_view name;
  std::uint64_t Row::*member;
};
constexpr SortKey kSortKeys[] = {{"total", &Row::total},   {"self", &Row::self},    {"calls", &Row::calls},
                                 {"p50", &Row::p50},       {"p99", &Row::p99},      {"max", &Row::max},
                                 {"failed", &Row::failed}, {"errors", &Row::errors}};

std::vector<Row> rowsOf(const TracePass& pass, const std::vector<FunctionFigures>& figures) {
  std::vector<Row> rows;
  for (const FunctionFigures& each : figures) {
    if (each.calls == 0 && each.errors == 0) continue;
    const auto quantile = [&](double share) {
      return each.ticks == nullptr ? 0 : pass.nanoseconds(each.ticks->quantile(share));
    };
    const std::uint64_t most = pass.nanoseconds(each.mostTicks);
    rows.push_back({each.function, each.calls, each.timed, each.failed, each.errors, pass.nanoseconds(each.totalTicks),
                    pass.nanoseconds(each.selfTicks), std::min(quantile(0.50), most), std::min(quantile(0.99), most),
                    most});
  }
  return rows;
}

void sortRows(std::vector<Row>& rows, const std::string& by) {
  const auto byName = [](const Row& a, const Row& b) { return a.function->name < b.function->name; };
  std::stable_sort(rows.begin(), rows.end(), byName);
  if (by == "name") return;
  const auto key =
      std::find_if(std::begin(kSortKeys), std::end(kSortKeys), [&](const SortKey& each) { return each.name == by; });
  if (key == std::end(kSortKeys))
    wrongUse("--sort does not know \"" + by +
             "\": it takes total, self, calls, p50, p99, max, failed, errors or name.");
  std::stable_sort(rows.begin(), rows.end(),
                   [&](const Row& a, const Row& b) { return a.*key->member > b.*key->member; });
}

void putRow(Output& out, const Row& row, bool colour) {
  const std::uint64_t times[] = {row.total, row.self, row.p50, row.p99, row.max};
  out.decimalRight(row.calls, 10);
  out.put("  ");
  for (const std::uint64_t ns : times) {
    if (row.timed != 0)
      putDuration(out, ns);
    else
      out.put("         - ");
    out.put(' ');
  }
  if (colour && row.failed != 0) out.put("\033[31m");
  out.decimalRight(row.failed, 8);
  if (colour && row.failed != 0) out.put("\033[0m");
  out.decimalRight(row.errors, 8);
  out.put("  ");
  const std::size_t start = out.size();
  out.put(row.function->component);
  out.padTo(start, 7);
  out.put(' ');
  out.put(row.function->name);
  out.lineEnd();
}

void putFooter(Output& out, const std::vector<Row>& rows, std::size_t shown, std::uint64_t unmatched,
               std::uint64_t open) {
  std::uint64_t calls = 0;
  std::uint64_t timed = 0;
  for (const Row& row : rows) {
    calls += row.calls;
    timed += row.timed;
  }
  out.put('\n');
  out.grouped(calls);
  out.put(calls == 1 ? " call of " : " calls of ");
  out.grouped(rows.size());
  out.put(rows.size() == 1 ? " function" : " functions");
  if (shown < rows.size()) out.put(", the first " + std::to_string(shown) + " shown");
  if (unmatched != 0) out.put("; " + std::to_string(unmatched) + " without a recorded entry");
  if (calls - timed > unmatched) out.put("; " + std::to_string(calls - timed - unmatched) + " across a gap, not timed");
  if (open != 0) out.put("; " + std::to_string(open) + " still open at the end");
  out.put(".\n");
}

void putTable(Command& command, const std::vector<Row>& rows, std::size_t shown) {
  command.out.put(
      "     calls      total        self         p50         p99         max       failed  errors  function\n");
  for (std::size_t i = 0; i < shown; ++i) putRow(command.out, rows[i], command.colour);
}

void putJsonRow(JsonDocument& json, const Row& row) {
  Text id;
  id.hexCode(row.function->id);
  json.StartObject();
  json.member("function", row.function->name);
  json.member("function_id", id.view());
  json.member("component", row.function->component);
  json.member("calls", row.calls);
  json.member("timed_calls", row.timed);
  json.member("failed", row.failed);
  json.member("errors", row.errors);
  json.member("total_ns", row.total);
  json.member("self_ns", row.self);
  json.member("p50_ns", row.p50);
  json.member("p99_ns", row.p99);
  json.member("max_ns", row.max);
  json.EndObject();
}

void putMoment(JsonDocument& json, std::string_view name, std::int64_t moment) {
  Text text;
  ClockText::iso(text, moment);
  json.member(name, text.view());
}

void putJson(Command& command, const TracePass& pass, const std::vector<Row>& rows, std::size_t shown,
             std::uint64_t unmatched, std::uint64_t open) {
  JsonDocument json;
  json.begin(command.out);
  json.member("instance", static_cast<const char*>(pass.info().instance));
  json.member("records", pass.totals().records);
  putMoment(json, "first", pass.totals().firstNs);
  putMoment(json, "last", pass.totals().lastNs);
  json.member("gaps", pass.totals().gaps);
  json.member("missing_records", pass.totals().missing);
  json.member("calls_without_entry", unmatched);
  json.member("calls_still_open", open);
  json.member("function_count", rows.size());
  json.array("functions");
  for (std::size_t i = 0; i < shown; ++i) putJsonRow(json, rows[i]);
  json.EndArray();
  json.EndObject();
  command.out.put('\n');
}

}  // namespace

int runStat(TracePass& pass, Command& command, const StatOptions& options) {
  StatView view(pass);
  std::vector<Row> rows;
  sortRows(rows, options.sort);  // a mistake in the key is told before the trace is read
  pass.run(view);
  rows = rowsOf(pass, view.figures());
  sortRows(rows, options.sort);
  const std::size_t shown = options.top == 0 ? rows.size() : std::min<std::size_t>(rows.size(), options.top);
  if (command.json) {
    putJson(command, pass, rows, shown, view.unmatched(), view.stillOpen());
    return EXIT_DONE;
  }
  putTable(command, rows, shown);
  putFooter(command.out, rows, shown, view.unmatched(), view.stillOpen());
  return EXIT_DONE;
}

}  // namespace veksys
