#include "platform/fault.h"

#include <pthread.h>
#include <string.h>
#include <ucontext.h>

#include <atomic>

namespace vek {
namespace {

constexpr int kSignals[] = {SIGSEGV, SIGBUS, SIGILL, SIGFPE};
constexpr std::size_t kCount = sizeof kSignals / sizeof kSignals[0];

constexpr int kMostNested = 2;  // a fault inside the capture still reaches the previous handler

// A guard in force, on the stack of its thread.
struct Guard {
  sigjmp_buf place;
  Fault* fault;
  Guard* outer;
};

constinit thread_local Guard* t_guard __attribute__((tls_model("initial-exec"))) = nullptr;

// Faults of this thread that are being handled: one inside the capture or a previous handler ends the process.
constinit thread_local int t_handling __attribute__((tls_model("initial-exec"))) = 0;

struct Handlers {
  pthread_once_t once = PTHREAD_ONCE_INIT;
  struct sigaction previous[kCount] = {};
  std::atomic<void (*)(int, siginfo_t*, void*)> capture{nullptr};
};

constinit Handlers g_handlers;

const struct sigaction& previousOf(int signal) noexcept {
  std::size_t index = 0;
  while (index + 1 < kCount && kSignals[index] != signal) ++index;
  return g_handlers.previous[index];
}

// Sent by a process, not raised by an instruction: returning from the handler would lose it.
bool wasSent(const siginfo_t* info) noexcept { return info->si_code <= 0; }

// Puts the default action back, under which the faulting instruction, run again, or the signal, sent again, ends the
// process.
void endByDefault(int signal, const siginfo_t* info) noexcept {
  struct sigaction action = {};
  action.sa_handler = SIG_DFL;
  ::sigaction(signal, &action, nullptr);
  if (wasSent(info)) (void)::raise(signal);
}

void callPrevious(int signal, siginfo_t* info, void* context) noexcept {
  const struct sigaction& previous = previousOf(signal);
  const bool takesInfo = (previous.sa_flags & SA_SIGINFO) != 0;
  if (!takesInfo && previous.sa_handler == SIG_DFL) return endByDefault(signal, info);
  if (!takesInfo && previous.sa_handler == SIG_IGN) {
    if (!wasSent(info)) endByDefault(signal, info);  // the system does not let a fault be ignored either
    return;
  }
  sigset_t mask = previous.sa_mask;
  if ((previous.sa_flags & SA_NODEFER) == 0) ::sigaddset(&mask, signal);
  sigset_t before;
  ::pthread_sigmask(SIG_BLOCK, &mask, &before);
  if (takesInfo)
    previous.sa_sigaction(signal, info, context);
  else
    previous.sa_handler(signal);
  ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

void noteFault(Fault* fault, int signal, const siginfo_t* info) noexcept {
  if (fault == nullptr) return;
  fault->signal = signal;
  fault->code = info->si_code;
  fault->address = info->si_addr;
  captureCallStack(&fault->stack, 1);
}

extern "C" void veki_fault(int signal, siginfo_t* info, void* context) {
  if (Guard* guard = t_guard; guard != nullptr && !wasSent(info)) {
    t_guard = guard->outer;  // a fault in here is not this guard's any more
    noteFault(guard->fault, signal, info);
    // The mask of the interrupted code: a wrapper around sigaction (the thread sanitizer has one) may block signals
    // here although SA_NODEFER asks for none, and the next fault would end the process.
    ::pthread_sigmask(SIG_SETMASK, &static_cast<const ucontext_t*>(context)->uc_sigmask, nullptr);
    ::siglongjmp(guard->place, 1);
  }
  if (t_handling >= kMostNested) return endByDefault(signal, info);
  ++t_handling;
  if (const auto capture = g_handlers.capture.load(std::memory_order_acquire); capture != nullptr && t_handling == 1)
    capture(signal, info, context);
  callPrevious(signal, info, context);
  --t_handling;
}

void install() {
  for (std::size_t i = 0; i < kCount; ++i) {
    ::sigaction(kSignals[i], nullptr, &g_handlers.previous[i]);  // known before the handler can run
    struct sigaction action = {};
    action.sa_sigaction = veki_fault;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_NODEFER | SA_RESTART;
    ::sigemptyset(&action.sa_mask);
    ::sigaction(kSignals[i], &action, nullptr);
  }
}

// The system ends a process at a fault whose signal is blocked, and many a thread of an engine blocks them all.
// Unblocks those of faults; answers whether one was blocked.
bool unblock(sigset_t* before) noexcept {
  sigset_t faults;
  ::sigemptyset(&faults);
  for (const int signal : kSignals) ::sigaddset(&faults, signal);
  ::pthread_sigmask(SIG_UNBLOCK, &faults, before);
  for (const int signal : kSignals)
    if (::sigismember(before, signal) == 1) return true;
  return false;
}

}  // namespace

bool faultGuard(void (*body)(void* context), void* context, Fault* fault) noexcept {
  ::pthread_once(&g_handlers.once, install);
  Guard guard;
  guard.fault = fault;
  guard.outer = t_guard;
  sigset_t before;
  const bool wereBlocked = unblock(&before);
  if (sigsetjmp(guard.place, 0) != 0) {  // the handler has taken the guard away
    if (wereBlocked) ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return false;
  }
  std::atomic_signal_fence(std::memory_order_seq_cst);
  t_guard = &guard;
  body(context);
  t_guard = guard.outer;
  std::atomic_signal_fence(std::memory_order_seq_cst);
  if (wereBlocked) ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
  return true;
}

void faultSetCapture(void (*capture)(int signal, siginfo_t* info, void* context)) noexcept {
  g_handlers.capture.store(capture, std::memory_order_release);
}

}  // namespace vek
