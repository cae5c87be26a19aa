// The trace scope as the library itself uses it: over its own hidden view of the trace words, one load away.
#pragma once

#include "platform/wint.h"
#include "veksys/diag/trace_scope.h"
#include "veksys_functions.h"

namespace vek {

struct LibraryWords {
  static std::uint32_t word(std::uint32_t component) noexcept { return wintTraceWord(component); }
};

template <EcfFunctionId Id>
using VekTrace = SqltTraceScope<Id, LibraryWords>;

}  // namespace vek
