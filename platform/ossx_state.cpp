// The decimal library's state: flags and rounding mode of a thread, control flags of the process.
//
// A thread's state is four bytes of thread-local storage and not part of ThreadState, since a status flag must never
// get lost: not where no instance region can be attached, not while a thread ends, and not in a child of fork, which
// goes on in the rounding mode of its parent.
#include <atomic>

#include "platform/ossx.h"
#include "veksys/codes.h"

namespace vek {

thread_local constinit DfpThread t_dfp __attribute__((tls_model("initial-exec"))) = {};

namespace {

// One word, so that no thread ever sees half of a change.
constexpr unsigned kSetBits = 8;

constexpr std::uint64_t packed(const DfpalControlFlags& flags) noexcept {
  std::uint64_t word = 0;
  for (const std::uint32_t each :
       {flags.defaultRounding, flags.tolerated, flags.secondWarnings, flags.firstWarnings, flags.trapped})
    word = word << kSetBits | each;
  return word;
}

constinit std::atomic<std::uint64_t> g_control = packed({.trapped = DFPAL_CONDITIONS,
                                                         .firstWarnings = DFPAL_OVERFLOW | DFPAL_UNDERFLOW,
                                                         .secondWarnings = DFPAL_INEXACT,
                                                         .tolerated = 0,
                                                         .defaultRounding = DFPAL_ROUND_HALF_EVEN});

DfpalControlFlags control() noexcept {
  const std::uint64_t word = g_control.load(std::memory_order_relaxed);
  const auto part = [word](unsigned index) { return static_cast<std::uint32_t>(word >> index * kSetBits & 0xFFU); };
  return {.trapped = part(0),
          .firstWarnings = part(1),
          .secondWarnings = part(2),
          .tolerated = part(3),
          .defaultRounding = part(4)};
}

}  // namespace

std::uint32_t dfpDefaultMode() noexcept { return control().defaultRounding; }

}  // namespace vek

std::uint32_t dfpalReadClearAllStatusFlag() noexcept { return dfpalSwapStatusFlag(0); }

std::uint32_t dfpalSwapStatusFlag(std::uint32_t flags) noexcept {
  const std::uint32_t had = vek::t_dfp.raised;
  vek::t_dfp.raised = static_cast<std::uint8_t>(flags & DFPAL_CONDITIONS);
  return had;
}

std::uint32_t dfpalGetRoundingMode() noexcept { return vek::dfpThreadMode(); }

SqlzZrc dfpalSetRoundingMode(std::uint32_t mode) noexcept {
  if (mode >= DFPAL_ROUND_MODES) return SQLO_INV_PARM;
  vek::t_dfp.modeAndOne = static_cast<std::uint8_t>(mode + 1);
  return 0;
}

void dfpalGetControlFlags(DfpalControlFlags* flagsOut) noexcept { *flagsOut = vek::control(); }

SqlzZrc dfpalSetControlFlags(const DfpalControlFlags* flags) noexcept {
  const std::uint32_t all = flags->trapped | flags->firstWarnings | flags->secondWarnings | flags->tolerated;
  if ((all & ~DFPAL_CONDITIONS) != 0 || flags->defaultRounding >= DFPAL_ROUND_MODES) return SQLO_INV_PARM;
  vek::g_control.store(vek::packed(*flags), std::memory_order_relaxed);
  return 0;
}
