// Calls of one thread put together from its records.
//
// Entries and exits are matched by function, the innermost first, so that a missing record costs the calls it belongs
// to and nothing else: an exit without its entry changes nothing; an entry without its exit ends when a call around it
// ends. Calls that were open across a gap are marked, for their duration may be another call's.
//
// A thread that never exits (exits not traced) would nest without end: beyond CALL_DEPTH_MOST open calls the outer half
// is forgotten.
#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

#include "text.h"
#include "trace_pass.h"

namespace veksys {

inline constexpr std::size_t CALL_DEPTH_MOST = 256;
inline constexpr std::size_t CALL_NOT_FOUND = ~std::size_t{0};

struct OpenCall {
  const TraceFunction* function;
  std::uint64_t ticks;
  std::int64_t realtimeNs;
  std::uint64_t insideTicks;  // spent in the calls it made
  bool spansGap;
  bool nested;     // an outer call of the same function is open
  bool chosen;     // the filter chose its entry
  bool shown;      // its entry stands in the output
  Text arguments;  // kept as room when the call ends
};

class CallStack {
 public:
  std::size_t depth() const noexcept { return depth_; }
  OpenCall& operator[](std::size_t level) noexcept { return calls_[level]; }
  OpenCall& top() noexcept { return calls_[depth_ - 1]; }

  OpenCall& enter(const TraceFunction& function, const SqltTraceRecord& record) {
    if (depth_ == CALL_DEPTH_MOST) [[unlikely]]
      forgetOuterHalf();
    const bool nested = find(function) != CALL_NOT_FOUND;
    if (depth_ == calls_.size()) calls_.emplace_back();
    OpenCall& call = calls_[depth_++];
    call.function = &function;
    call.ticks = record.ticks;
    call.realtimeNs = record.realtimeNs;
    call.insideTicks = 0;
    call.spansGap = call.chosen = call.shown = false;
    call.nested = nested;
    call.arguments.clear();
    return call;
  }

  // The level of the innermost open call of a function, or CALL_NOT_FOUND.
  std::size_t find(const TraceFunction& function) const noexcept {
    for (std::size_t level = depth_; level-- > 0;)
      if (calls_[level].function == &function) return level;
    return CALL_NOT_FOUND;
  }

  void leave() noexcept { --depth_; }

  void meetGap() noexcept {
    for (std::size_t level = 0; level < depth_; ++level) calls_[level].spansGap = true;
  }

 private:
  void forgetOuterHalf() {
    constexpr auto half = static_cast<std::ptrdiff_t>(CALL_DEPTH_MOST / 2);
    std::rotate(calls_.begin(), calls_.begin() + half, calls_.begin() + 2 * half);
    depth_ -= CALL_DEPTH_MOST / 2;
  }

  std::vector<OpenCall> calls_;
  std::size_t depth_ = 0;
};

// The stacks of all threads, by the index of the thread.
class CallStacks {
 public:
  CallStack& operator[](const TraceThread& thread) {
    while (thread.index >= stacks_.size()) stacks_.emplace_back();
    return stacks_[thread.index];
  }
  std::vector<CallStack>& all() noexcept { return stacks_; }

 private:
  std::vector<CallStack> stacks_;
};

}  // namespace veksys
