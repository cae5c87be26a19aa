// One pass over a trace: opens it, knows its functions and threads, applies the filter, hands records to a view.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "trace_filter.h"
#include "veksys/diag/trace_reader.h"

namespace veksys {

// A function met in the trace. Owned by the pass; `index` counts from 0 in the order of first appearance.
struct TraceFunction {
  EcfFunctionId id;
  std::uint32_t index;
  bool chosen;
  std::string name;       // "SQLO.17" when nobody named it
  std::string component;  // prefix
  std::string members;    // the same as members of a JSON object
};

// A thread met in the trace.
struct TraceThread {
  SqltTraceThread who;
  std::uint32_t index;  // counts from 0 in the order of first appearance
  bool chosen;
  std::int64_t firstNs;  // moment of its first record
  std::string members;   // the same as members of a JSON object
};

std::string functionMembers(const TraceFunction& function);
std::string threadMembers(const SqltTraceThread& who);

// A record as a view gets it. `shown` tells whether the filter chose it; those it did not choose still carry the
// structure of calls.
struct TraceSight {
  const SqltTraceRecord& record;
  const TraceFunction& function;
  const TraceThread& thread;
  bool shown;
};

class TraceView {
 public:
  virtual ~TraceView() = default;
  virtual void see(const TraceSight& sight) = 0;
};

// What a pass met, whether chosen or not.
struct PassTotals {
  std::uint64_t records = 0;  // gaps not counted
  std::uint64_t shown = 0;
  std::uint64_t gaps = 0;
  std::uint64_t missing = 0;  // records that the gaps tell
  std::uint64_t damagedBytes = 0;
  std::int64_t firstNs = 0;
  std::int64_t lastNs = 0;
};

// Functions beyond this many (no real program has them) share one entry, so that a hostile file costs no memory.
inline constexpr std::size_t TRACE_FUNCTIONS_MOST = 65536;

class TracePass {
 public:
  // Opens the file, or the instance's trace when the name is empty. Throws Failure, in plain words, when that fails.
  TracePass(const std::string& file, const FilterOptions& options);

  // Hands every record of the chosen threads to the view, in the order of time.
  void run(TraceView& view);

  const SqltTraceReader& reader() const noexcept { return reader_; }
  const SqltTraceInfo& info() const noexcept { return *reader_.info(); }
  const TraceFilter& filter() const noexcept { return filter_; }
  CodeNames& codes() noexcept { return codes_; }
  const PassTotals& totals() const noexcept { return totals_; }
  const std::vector<std::unique_ptr<TraceFunction>>& functions() const noexcept { return functions_; }
  const std::vector<std::unique_ptr<TraceThread>>& threads() const noexcept { return threads_; }
  std::uint64_t nanoseconds(std::uint64_t ticks) const noexcept {
    const double ns = static_cast<double>(ticks) * nsPerTick_;
    return ns < 9e18 ? static_cast<std::uint64_t>(ns) : 9'000'000'000'000'000'000U;
  }

  // Tells on standard error how much is missing, if anything is.
  void remarkGaps() const;

 private:
  struct FunctionSlot {
    EcfFunctionId id = 0;
    TraceFunction* function = nullptr;
  };

  const TraceFunction& functionOf(EcfFunctionId id);
  const TraceFunction& addFunction(EcfFunctionId id);
  const TraceThread& threadOf(const SqltTraceRecord& record);
  bool chooses(const SqltTraceRecord& record, const TraceFunction& function, const TraceThread& thread);
  void scout();
  void count(const SqltTraceRecord& record) noexcept;

  SqltTraceReader reader_;
  TraceFilter filter_;
  CodeNames codes_;
  PassTotals totals_;
  std::vector<std::unique_ptr<TraceFunction>> functions_;
  std::vector<FunctionSlot> functionSlots_;
  std::unordered_map<std::uint64_t, TraceThread*> threadsBySerial_;
  std::vector<std::unique_ptr<TraceThread>> threads_;
  const TraceThread* lastThread_ = nullptr;
  std::uint64_t skip_ = 0;  // chosen records before the ones that --last asks for
  double nsPerTick_ = 1;
};

// "57 records were overwritten here", for a gap.
void putGap(Text& text, const SqltTraceRecord& gap);
std::string_view gapName(SqltGapReason reason);
std::string_view kindName(SqltRecordKind kind);

}  // namespace veksys
