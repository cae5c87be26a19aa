// The status-flag protocol: how the conditions of one operation become a return code, without the caller's flags
// noticing.
#pragma once

#include <cstdint>

#include "veksys/values/decimal_float.h"

namespace vek {

// What the conditions of an operation mean: the return code, and whether the result counts.
struct SqlvDfpOutcome {
  SqlzZrc zrc;
  bool isStored;
};

// Whether the control flags in force trap one of the conditions that were raised.
bool sqlvi_dfpIsTrapped(std::uint32_t raised) noexcept;

// The code of conditions that were raised, under the control flags in force.
SqlvDfpOutcome sqlvi_dfpOutcome(std::uint32_t raised) noexcept;

// Runs an operation of the decimal library between reading and clearing the thread's flags and restoring them. The
// conditions that it raised come through `raisedOut`.
template <class Operation>
auto sqlvi_dfpRun(Operation operation, std::uint32_t* raisedOut) noexcept {
  const std::uint32_t saved = dfpalReadClearAllStatusFlag();
  const auto result = operation();
  *raisedOut = dfpalSwapStatusFlag(saved);
  return result;
}

// The whole of it: runs the operation and stores its result as the outcome tells.
template <class Operation, class Store>
SqlzZrc sqlvi_dfpProtocol(Operation operation, Store store) noexcept {
  std::uint32_t raised = 0;
  const auto result = sqlvi_dfpRun(operation, &raised);
  if (raised == 0) [[likely]] {
    store(result);
    return 0;
  }
  const SqlvDfpOutcome outcome = sqlvi_dfpOutcome(raised);
  if (outcome.isStored) store(result);
  return outcome.zrc;
}

// Hands the value in `bytes` bytes at `value` to `operation` as what it is. SQLRX_DFP_INVALID: there is no such width.
template <class Operation>
SqlzZrc sqlvi_dfpOfWidth(std::uint32_t bytes, Operation operation) noexcept {
  if (bytes == SQLV_DECFLOAT16_BYTES) return operation(DfpalDecimal64{});
  if (bytes == SQLV_DECFLOAT34_BYTES) return operation(DfpalDecimal128{});
  return SQLRX_DFP_INVALID;
}

}  // namespace vek
