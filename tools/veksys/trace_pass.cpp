#include "trace_pass.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "failure.h"
#include "instance.h"
#include "output.h"
#include "veksys/codes.h"
#include "veksys/host.h"

namespace veksys {
namespace {

constexpr std::size_t kFirstSlots = 1024;

void openFile(SqltTraceReader& reader, const std::string& file) {
  stayDetached();
  if (::access(file.c_str(), R_OK) != 0) sayNo("\"" + file + "\" cannot be read: " + ::strerror(errno) + ".");
  const SqlzZrc result = reader.openFile(file.c_str());
  if (result == SQLT_TRACE_NOT_A_TRACE)
    sayNo("\"" + file +
          "\" is no trace that this command can read: it takes what `veksys trace dump` of the same version writes.");
  if (result != 0) sayNo("\"" + file + "\" cannot be read: " + describeCode(result) + ".");
}

void openInstance(SqltTraceReader& reader) {
  attachToExisting();
  const SqlzZrc result = reader.openInstance();
  const std::string instance = "instance " + std::string(vekInstanceName());
  if (result == SQLT_TRACE_NOT_CREATED) sayNo("There is no trace in " + instance + "; `veksys trace on` creates one.");
  if (result == SQLT_TRACE_NOT_A_TRACE)
    sayNo("The trace of " + instance + " is damaged or of another layout version; use the command that belongs to it.");
  if (result != 0) sayNo("The trace of " + instance + " cannot be read: " + describeCode(result) + ".");
}

SqltTraceReader openTrace(const std::string& file) {
  SqltTraceReader reader;
  file.empty() ? openInstance(reader) : openFile(reader, file);
  return reader;
}

}  // namespace

TracePass::TracePass(const std::string& file, const FilterOptions& options)
    : reader_(openTrace(file)), filter_(options), functionSlots_(kFirstSlots) {
  nsPerTick_ = 1e9 / static_cast<double>(std::max<std::uint64_t>(info().ticksPerSecond, 1));
}

void TracePass::run(TraceView& view) {
  if (filter_.needsEnd() || filter_.last().has_value()) scout();
  const std::uint64_t most = filter_.limit().value_or(~0ULL);
  SqltTraceRecord record;
  while (totals_.shown < most && reader_.next(&record)) {
    const TraceThread& thread = threadOf(record);
    if (!thread.chosen) continue;
    count(record);
    const TraceFunction& function = functionOf(record.functionId);
    bool shown = chooses(record, function, thread);
    if (shown && skip_ > 0) {
      skip_ -= record.kind != SqltRecordKind::kGap ? 1U : 0U;
      shown = false;
    }
    totals_.shown += shown && record.kind != SqltRecordKind::kGap ? 1 : 0;
    view.see({record, function, thread, shown});
  }
}

// A first pass for what can be told from the end only: when that is, and how many records are chosen.
void TracePass::scout() {
  SqltTraceRecord record;
  if (filter_.needsEnd()) {
    std::int64_t end = info().createdRealtimeNs;
    while (reader_.next(&record))
      if (record.kind != SqltRecordKind::kGap) end = std::max(end, record.realtimeNs);
    filter_.resolveTimes(end);
    reader_.rewind();
  }
  if (!filter_.last().has_value()) return;
  std::uint64_t chosen = 0;
  while (reader_.next(&record))
    if (record.kind != SqltRecordKind::kGap && chooses(record, functionOf(record.functionId), threadOf(record)))
      ++chosen;
  skip_ = chosen > *filter_.last() ? chosen - *filter_.last() : 0;
  reader_.rewind();
}

bool TracePass::chooses(const SqltTraceRecord& record, const TraceFunction& function, const TraceThread& thread) {
  if (!thread.chosen || !filter_.choosesTime(record.realtimeNs)) return false;
  if (record.kind == SqltRecordKind::kGap) return !filter_.narrowsFunctions() && !filter_.hasOutcome();
  return function.chosen && (!filter_.hasOutcome() || filter_.choosesOutcome(record, codes_));
}

void TracePass::count(const SqltTraceRecord& record) noexcept {
  if (record.kind == SqltRecordKind::kGap) {
    ++totals_.gaps;
    totals_.missing += record.gapRecords;
    totals_.damagedBytes += record.gapBytes;
    return;
  }
  if (totals_.records++ == 0) totals_.firstNs = record.realtimeNs;
  totals_.lastNs = std::max(totals_.lastNs, record.realtimeNs);
}

const TraceFunction& TracePass::functionOf(EcfFunctionId id) {
  const std::size_t mask = functionSlots_.size() - 1;
  std::size_t at = (id * 2654435761U >> 8) & mask;
  for (;; at = (at + 1) & mask) {
    FunctionSlot& slot = functionSlots_[at];
    if (slot.function == nullptr) return addFunction(id);
    if (slot.id == id) return *slot.function;
  }
}

const TraceFunction& TracePass::addFunction(EcfFunctionId id) {
  const bool full = functions_.size() >= TRACE_FUNCTIONS_MOST;
  if (!full && functions_.size() * 2 >= functionSlots_.size()) {
    std::vector<FunctionSlot> larger(functionSlots_.size() * 2);
    for (const FunctionSlot& slot : functionSlots_) {
      if (slot.function == nullptr) continue;
      std::size_t at = (slot.id * 2654435761U >> 8) & (larger.size() - 1);
      while (larger[at].function != nullptr) at = (at + 1) & (larger.size() - 1);
      larger[at] = slot;
    }
    functionSlots_.swap(larger);
  }
  const char* name = reader_.functionName(id);
  auto function = std::make_unique<TraceFunction>();
  function->id = id;
  function->index = static_cast<std::uint32_t>(functions_.size());
  function->chosen = filter_.choosesFunction(id, name);
  function->component = ecfIsFunctionId(id) ? componentLabel(ecfComponent(id)) : "?";
  Text text;
  if (name != nullptr)
    putSafe(text, name);
  else
    text.put(function->component + "." + std::to_string(ecfNumber(id)));
  function->name = text.view();
  function->members = functionMembers(*function);
  if (full) {
    function->index = static_cast<std::uint32_t>(TRACE_FUNCTIONS_MOST - 1);
    *functions_.back() = *function;
    return *functions_.back();
  }
  std::size_t at = (id * 2654435761U >> 8) & (functionSlots_.size() - 1);
  while (functionSlots_[at].function != nullptr) at = (at + 1) & (functionSlots_.size() - 1);
  functionSlots_[at] = {id, function.get()};
  functions_.push_back(std::move(function));
  return *functions_.back();
}

const TraceThread& TracePass::threadOf(const SqltTraceRecord& record) {
  const SqltTraceThread& who = record.thread;
  if (lastThread_ != nullptr && lastThread_->who.serial == who.serial) return *lastThread_;
  TraceThread*& known = threadsBySerial_[who.serial];
  if (known == nullptr) {
    threads_.push_back(std::make_unique<TraceThread>());
    known = threads_.back().get();
    *known = {who, static_cast<std::uint32_t>(threads_.size() - 1), filter_.choosesThread(who), record.realtimeNs,
              threadMembers(who)};
  }
  lastThread_ = known;
  return *known;
}

void TracePass::remarkGaps() const {
  if (totals_.gaps == 0) return;
  Text text;
  text.put("The trace has ");
  text.grouped(totals_.gaps);
  text.put(totals_.gaps == 1 ? " gap" : " gaps");
  if (totals_.missing != 0) {
    text.put(": ");
    text.grouped(totals_.missing);
    text.put(totals_.missing == 1 ? " record is missing" : " records are missing");
  }
  text.put('.');
  remark(text.view());
}

// ---- words ------------------------------------------------------------------------------------------------------

namespace {

struct GapWords {
  std::string_view name;
  std::string_view one;
  std::string_view many;
  std::string_view unknown;
};
constexpr GapWords kGaps[] = {
    {"overwritten", " record was overwritten here", " records were overwritten here", "records were overwritten here"},
    {"lost", " record was lost here: there was no free segment", " records were lost here: there was no free segment",
     "records were lost here"},
    {"damaged", " record is damaged here", " records are damaged here", "what stands here is damaged"},
    {"unfinished", " record was begun here and not finished", " records were begun here and not finished",
     "a record was begun here and not finished"},
    {"unreadable", " record cannot be read here", " records cannot be read here", "a segment cannot be read here"},
};

const GapWords& gapWords(SqltGapReason reason) {
  const auto index = static_cast<std::size_t>(reason);
  return kGaps[index < std::size(kGaps) ? index : std::size(kGaps) - 1];
}

constexpr std::string_view kKinds[] = {"?",      "entry", "exit",       "data",       "error",
                                       "marker", "event", "correlator", "translation"};

}  // namespace

void putGap(Text& text, const SqltTraceRecord& gap) {
  const GapWords& words = gapWords(gap.gapReason);
  if (gap.gapRecords == 0) {
    text.put(words.unknown);
  } else {
    text.grouped(gap.gapRecords);
    text.put(gap.gapRecords == 1 ? words.one : words.many);
  }
  if (gap.gapBytes == 0) return;
  text.put(" (");
  text.grouped(gap.gapBytes);
  text.put(" bytes)");
}

std::string_view gapName(SqltGapReason reason) { return gapWords(reason).name; }

std::string_view kindName(SqltRecordKind kind) {
  const auto index = static_cast<std::size_t>(kind);
  if (kind == SqltRecordKind::kGap) return "gap";
  return index < std::size(kKinds) ? kKinds[index] : kKinds[0];
}

}  // namespace veksys
