// Faults: SIGSEGV, SIGBUS, SIGILL and SIGFPE of the process, handled in this order:
//
//   1  the guard of the faulting thread: code that the library runs for others, such as a formatter. The guarded body
//      is left, the process goes on. A fault in the program's own signal handler that interrupted the body is not the
//      guard's, as far as the stack can be followed: behind code without unwind information it is taken for the body's
//   2  the capture, once there is one
//   3  whatever the program had installed before: its handler, called as it asked to be called, or the system's default
//
// The handler is installed by the first guard of a process and never taken away. It runs on the alternate stack of the
// thread when there is one. A handler that the program installs over it later counts until the next look, one in every
// 64 guards of the process: then ours is put before it, and it becomes the one that was there before; up to seven of
// them. Until then a fault in a guarded body goes to the program's handler, and to ours only if that hands it on.
//
// A fault whose signal is blocked ends the process, so a guard unblocks the signals. That is a system call: a thread in
// which none was blocked is looked at again by its 16th guard. One that blocks them in between, and meets a fault
// before that guard, is ended by the system.
//
// SIGXFSZ belongs to the signals: a guarded write past the limit on file sizes fails with EFBIG. Whoever writes takes
// the signal away (ossTakeSignal), which waits where it is blocked.
#pragma once

#include <csetjmp>
#include <csignal>
#include <cstdint>

#include "platform/callstack.h"

namespace vek {

// What a guard caught.
struct Fault {
  int signal;
  int code;  // si_code
  const void* address;
  CallStack stack;  // of the faulting code
};

// Runs `body(context)`. False when a fault of this thread ended it; what it had begun stays as it is, `fault` (when
// given, its memory touched in that case only) tells about it. Guards nest: the innermost one counts.
bool faultGuard(void (*body)(void* context), void* context, Fault* fault) noexcept;

// Has the capture called for faults that no guard catches, before the previous handler; null: nothing. It runs in the
// signal handler and returns.
void faultSetCapture(void (*capture)(int signal, siginfo_t* info, void* context)) noexcept;

}  // namespace vek
