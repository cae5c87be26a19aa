// The call stack of a thread: addresses, the symbols they lie in, and what is needed to find source lines later.
//
// Nothing here allocates or takes a lock; it may run in a signal handler, in a forked child and in a process that is
// dying. Symbols are the exported functions of each module (as written, not demangled). A return address is shown as
// the last byte of its call, so that it always lies in the function that called.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace vek {

inline constexpr std::size_t CALL_STACK_FRAMES_MOST = 64;
inline constexpr std::size_t CALL_STACK_MODULES_MOST = 16;
inline constexpr std::size_t CALL_STACK_BUILD_ID_BYTES_MOST = 32;

// A loaded file that addresses of a stack lie in. An address less `base` is the address that its symbol table and
// debug information use.
struct CallStackModule {
  const char* path;  // the loader's, valid while the module stays loaded; empty when it has none
  std::uintptr_t base;
  std::uint8_t buildId[CALL_STACK_BUILD_ID_BYTES_MOST];
  std::uint32_t buildIdBytes;  // 0: the module has none
};

struct CallStackFrame {
  std::uintptr_t address;
  const char* symbol;           // null: none is known
  std::uintptr_t displacement;  // of the address from the symbol; from the module's base when there is none
  std::int32_t module;          // index, -1: in no module (or one too many)
};

struct CallStack {
  CallStackFrame frames[CALL_STACK_FRAMES_MOST];
  std::uint32_t frameCount;
  bool isCut;  // there were more frames
  CallStackModule modules[CALL_STACK_MODULES_MOST];
  std::uint32_t moduleCount;
};

// Takes the stack of the calling thread, innermost frame first: that of the caller, unless `skip` leaves out more. In
// a signal handler it goes on through the interrupted code. Frames behind code without unwind information are missing.
void captureCallStack(CallStack* out, std::uint32_t skip) noexcept;

// To be asked in a signal handler: whether the innermost call of the function that begins at `function` was interrupted
// by another signal before, whose handler it is that was interrupted now. False, too, when the stack cannot be followed
// that far.
bool callStackIsOfHandlerOver(std::uintptr_t function) noexcept;

// Fills in a stack from addresses that were taken elsewhere.
void resolveCallStack(std::span<const std::uintptr_t> addresses, CallStack* out) noexcept;

}  // namespace vek
