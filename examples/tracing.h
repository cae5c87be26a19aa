// Getting the trace ready for the engine, without disturbing what somebody else has chosen to look at.
#pragma once

#include <veksys/types.h>

#include <cstdint>

namespace demo {

enum class TracePoints {
  kSwitchedOn,  // the engine's components, by this call
  kWereOn,      // the engine's components, before
  kOthersOn,    // somebody traces other components; left alone
  kLeft,        // as asked for
};

struct TraceSetup {
  SqlzZrc code = 0;  // 0, or why there is no trace
  bool created = false;
  std::uint64_t bytes = 0;  // of the shared trace, 0 when there is none
  TracePoints points = TracePoints::kLeft;
};

// Creates the shared trace unless there is one, and switches the entry, exit, data and error points of the engine's
// components on. With `keepSettings` it does neither and tells what there is.
TraceSetup prepareTrace(bool keepSettings) noexcept;

}  // namespace demo
