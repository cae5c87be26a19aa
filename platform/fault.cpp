#include "platform/fault.h"

#include <pthread.h>
#include <string.h>
#include <ucontext.h>

#include <atomic>
#include <bit>

namespace vek {
namespace {

// Those of faults, and that of a write past the limit on file sizes.
constexpr int kSignals[] = {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGXFSZ};
constexpr std::size_t kCount = sizeof kSignals / sizeof kSignals[0];

constexpr std::uint32_t kMostNested = 2;      // a fault inside the capture still reaches the previous handler
constexpr std::uint32_t kMostPrevious = 8;    // handlers that a program may install over ours, one after the other
constexpr std::uint32_t kGuardsPerLook = 64;  // between two looks whether it has: a look costs a system call a signal
constexpr std::uint32_t kGuardsPerMask = 16;  // of a thread, between two looks at its signal mask

// A guard in force, on the stack of its thread.
struct Guard {
  sigjmp_buf place;
  Fault* fault;
  Guard* outer;
};

constinit thread_local Guard* t_guard __attribute__((tls_model("initial-exec"))) = nullptr;

// Guards that this thread may still have without a look at its signal mask.
constinit thread_local std::uint32_t t_spared __attribute__((tls_model("initial-exec"))) = 0;

// Faults of this thread that are being handled: one inside the capture or a previous handler ends the process.
constinit thread_local std::uint32_t t_handling __attribute__((tls_model("initial-exec"))) = 0;

// What was installed for a signal before our handler, the latest last. Entries below `count` are never changed.
struct Previous {
  struct sigaction actions[kMostPrevious] = {};
  std::atomic<std::uint32_t> count{0};
};

struct Handlers {
  pthread_once_t once = PTHREAD_ONCE_INIT;
  sigset_t signals = {};  // all of kSignals
  Previous previous[kCount];
  std::atomic<std::uint32_t> guards{0};
  std::atomic_flag isLooking = ATOMIC_FLAG_INIT;
  std::atomic<void (*)(int, siginfo_t*, void*)> capture{nullptr};
};

constinit Handlers g_handlers;

const Previous& previousOf(int signal) noexcept {
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

// Calls what was there before. A handler that was installed over ours may hand the signal on to ours, which it found
// there: that call, the `nested`-th, goes to the handler before it.
void callPrevious(const Previous& all, std::uint32_t nested, int signal, siginfo_t* info, void* context) noexcept {
  const std::uint32_t count = all.count.load(std::memory_order_acquire);
  const struct sigaction& previous = all.actions[nested < count ? count - 1 - nested : 0];
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

// Whether the program's own handler of some signal, which interrupted the guarded body, has faulted: the body is not to
// be left for that, since it goes on when the handler returns.
bool isOfAHandler() noexcept { return callStackIsOfHandlerOver(std::bit_cast<std::uintptr_t>(&faultGuard)); }

void noteFault(Fault* fault, int signal, const siginfo_t* info) noexcept {
  if (fault == nullptr) return;
  fault->signal = signal;
  fault->code = info->si_code;
  fault->address = info->si_addr;
  captureCallStack(&fault->stack, 1);
}

extern "C" void veki_fault(int signal, siginfo_t* info, void* context) {
  if (signal == SIGXFSZ && t_guard != nullptr) return;  // the write answers EFBIG
  if (Guard* guard = t_guard; guard != nullptr && !wasSent(info) && !isOfAHandler()) {
    t_guard = guard->outer;  // a fault in here is not this guard's any more
    noteFault(guard->fault, signal, info);
    // The mask of the interrupted code: a wrapper around sigaction (the thread sanitizer has one) may block signals
    // here although SA_NODEFER asks for none, and the next fault would end the process.
    ::pthread_sigmask(SIG_SETMASK, &static_cast<const ucontext_t*>(context)->uc_sigmask, nullptr);
    ::siglongjmp(guard->place, 1);
  }
  const Previous& previous = previousOf(signal);
  if (t_handling >= kMostNested + previous.count.load(std::memory_order_relaxed) - 1) return endByDefault(signal, info);
  const std::uint32_t nested = t_handling++;
  const auto capture = g_handlers.capture.load(std::memory_order_acquire);
  if (capture != nullptr && nested == 0 && signal != SIGXFSZ) capture(signal, info, context);
  callPrevious(previous, nested, signal, info, context);
  --t_handling;
}

bool isOurs(const struct sigaction& action) noexcept {
  return (action.sa_flags & SA_SIGINFO) != 0 && action.sa_sigaction == veki_fault;
}

bool isSame(const struct sigaction& one, const struct sigaction& other) noexcept {
  return one.sa_handler == other.sa_handler && one.sa_flags == other.sa_flags;
}

// Puts our handler in the place of another one, which is known before ours can run.
void installFor(int signal, Previous* previous) noexcept {
  struct sigaction there;
  ::sigaction(signal, nullptr, &there);
  const std::uint32_t count = previous->count.load(std::memory_order_relaxed);
  if (isOurs(there) || (signal == SIGXFSZ && there.sa_handler == SIG_IGN))
    return;  // ignored, the write fails: as it should
  if (count == 0 || !isSame(previous->actions[count - 1], there)) {
    if (count == kMostPrevious) return;
    previous->actions[count] = there;
    previous->count.store(count + 1, std::memory_order_release);
  }
  struct sigaction action = {};
  action.sa_sigaction = veki_fault;
  action.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_NODEFER | SA_RESTART;
  ::sigemptyset(&action.sa_mask);
  ::sigaction(signal, &action, nullptr);
}

void installAll() {
  for (std::size_t i = 0; i < kCount; ++i) installFor(kSignals[i], &g_handlers.previous[i]);
}

void installFirst() {
  ::sigemptyset(&g_handlers.signals);
  for (const int signal : kSignals) ::sigaddset(&g_handlers.signals, signal);
  installAll();
}

// Every now and then, whether the program has installed handlers of its own over ours since.
void lookAfterHandlers() noexcept {
  if (g_handlers.guards.fetch_add(1, std::memory_order_relaxed) % kGuardsPerLook != kGuardsPerLook - 1) return;
  if (g_handlers.isLooking.test_and_set(std::memory_order_acquire)) return;
  installAll();
  g_handlers.isLooking.clear(std::memory_order_release);
}

// The system ends a process at a fault whose signal is blocked, and many a thread of an engine blocks them all.
// Unblocks those of faults; answers whether one was blocked. A thread in which none was is believed for some guards.
bool unblock(sigset_t* before) noexcept {
  if (t_spared != 0) {
    --t_spared;
    return false;
  }
  ::pthread_sigmask(SIG_UNBLOCK, &g_handlers.signals, before);
  for (const int signal : kSignals)
    if (::sigismember(before, signal) == 1) return true;
  t_spared = kGuardsPerMask - 1;
  return false;
}

}  // namespace

[[gnu::noinline]] bool faultGuard(void (*body)(void* context), void* context, Fault* fault) noexcept {
  ::pthread_once(&g_handlers.once, installFirst);
  lookAfterHandlers();
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
