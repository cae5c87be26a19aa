// Which records a view is about. The same options with the same meaning in every view.
#pragma once

#include <CLI/CLI.hpp>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "clock.h"
#include "names.h"
#include "trace_codes.h"
#include "veksys/diag/trace_reader.h"

namespace veksys {

struct FilterOptions {
  std::vector<std::string> components;
  std::vector<std::string> functions;
  std::vector<std::string> processes;
  std::vector<std::string> threads;
  std::vector<std::string> codes;
  std::string since;
  std::string until;
  bool errors = false;
  std::optional<std::uint64_t> limit;
  std::optional<std::uint64_t> last;
};
void addFilterOptions(CLI::App* app, FilterOptions* options);

class TraceFilter {
 public:
  explicit TraceFilter(const FilterOptions& options);  // throws Failure for what it cannot understand

  // Whether the moments depend on where the trace ends; resolveTimes() must then be told before records are judged.
  bool needsEnd() const noexcept;
  void resolveTimes(std::int64_t traceEnd);

  // Decided once per function and thread.
  bool choosesFunction(EcfFunctionId id, const char* name) const;
  bool choosesThread(const SqltTraceThread& thread) const;
  bool narrowsFunctions() const noexcept { return narrowsFunctions_; }

  // Whether it leaves anything out by what a record is, as opposed to how many are wanted.
  bool narrows() const noexcept {
    return narrowsFunctions_ || hasOutcome() || !processes_.empty() || !threads_.empty() || typedSince_.has_value() ||
           typedUntil_.has_value();
  }

  // Decided per record.
  bool choosesTime(std::int64_t moment) const noexcept { return moment >= since_ && moment <= until_; }
  bool hasOutcome() const noexcept { return failed_ || !codes_.empty(); }
  bool choosesOutcome(const SqltTraceRecord& record, CodeNames& codes) const;

  const std::optional<std::uint64_t>& limit() const noexcept { return limit_; }
  const std::optional<std::uint64_t>& last() const noexcept { return last_; }

 private:
  bool choosesValue(std::int64_t value, CodeNames& codes) const;

  ComponentSet components_;
  std::vector<std::string> functionPatterns_;
  std::vector<EcfFunctionId> functionIds_;
  bool narrowsFunctions_ = false;
  std::vector<std::string> processes_;
  std::vector<std::string> threads_;
  std::optional<TypedMoment> typedSince_;
  std::optional<TypedMoment> typedUntil_;
  std::int64_t since_ = std::numeric_limits<std::int64_t>::min();
  std::int64_t until_ = std::numeric_limits<std::int64_t>::max();
  std::vector<std::int32_t> codes_;
  bool failed_ = false;
  std::optional<std::uint64_t> limit_;
  std::optional<std::uint64_t> last_;
};

// The code a translation became; nothing when the record does not carry it.
std::optional<std::int64_t> translatedTo(const SqltTraceRecord& record);

}  // namespace veksys
