#include "platform/thread.h"

#include <pthread.h>

#include <atomic>

#include "platform/library_mutex.h"
#include "platform/log_mutex.h"
#include "platform/osse.h"
#include "platform/ports.h"
#include "platform/region.h"
#include "platform/state_pool.h"
#include "platform/trc_ring.h"
#include "platform/trcapi.h"

namespace vek {

thread_local constinit ThreadState* t_self __attribute__((tls_model("initial-exec"))) = nullptr;
thread_local constinit SqloLatchTable* t_latchTable __attribute__((tls_model("initial-exec"))) = nullptr;
thread_local constinit unsigned t_lockDepth __attribute__((tls_model("initial-exec"))) = 0;

namespace {

constinit pthread_once_t g_started = PTHREAD_ONCE_INIT;
constinit pthread_once_t g_forksWatched = PTHREAD_ONCE_INIT;
constinit pthread_key_t g_endKey = 0;
constinit bool g_hasEndKey = false;
constinit std::atomic<bool> g_ending{false};
constinit StatePool<ThreadState, 64> g_states;

// Stands in for a thread's state while that is being made or when it has been given back: points find it busy.
ThreadState* busyState() noexcept {
  static constinit ThreadState busy = {
      .trace = {.inside = true}, .threadSlot = REGION_NO_SLOT, .threadId = 0, .serial = 0, .processId = 0, .name = {}};
  return &busy;
}

// What a thread gives back, in this order; latches may still log and trace, so the trace segment goes after them.
void giveBack(ThreadState* state) noexcept {
  g_ports.flushMemoryCaches();
  g_ports.checkLatches();
  trcReleaseThread();
  regionThreadLeave(state->threadSlot);
  t_self = busyState();
  g_states.giveBack(state);
}

extern "C" void veki_threadEnds(void* value) { giveBack(static_cast<ThreadState*>(value)); }

// A destructor of the library instead of a handler given to atexit: a fork while another thread is registering one
// leaves the child with a lock of the C library that nobody will ever give back.
[[gnu::destructor]] void processEnds() {
  if (t_self != nullptr && t_self != busyState()) {
    g_ports.flushMemoryCaches();
    g_ports.checkLatches();
  }
  g_ending.store(true, std::memory_order_relaxed);
  g_ports.freeMemoryRows();
  trcDetachShared();
}

// Has the thread's end give its state back. False: all keys of the process are taken, or there is no memory.
bool watchEnd(ThreadState* state) noexcept { return g_hasEndKey && ::pthread_setspecific(g_endKey, state) == 0; }

// Fork: locks in their order (docs/lock-order.md), so that the child finds none held by a thread it does not have.
void beforeFork() {
  logMutexLockForFork();
  regionLockForFork();
  trcLockForFork();
  g_states.lockForFork();
}

void afterForkInParent() {
  g_states.unlockAfterFork();
  trcUnlockAfterFork();
  regionUnlockAfterFork();
  logMutexUnlockAfterFork();
}

void afterForkInChild() {
  g_states.unlockAfterFork();
  trcUnlockAfterFork();
  regionUnlockAfterFork();
  regionAfterFork();
  trcAfterFork();
  if (t_latchTable != nullptr) ossUnmapPages(t_latchTable, LATCH_TABLE_BYTES);  // it notes the parent's holds
  t_latchTable = nullptr;
  if (t_self != nullptr && t_self != busyState()) {
    (void)watchEnd(nullptr);
    g_states.giveBack(t_self);  // the child's copy; the segment and the slot stay the parent's
    t_self = nullptr;
  }
  logMutexUnlockAfterFork();
}

void watchForks() {
  // Without the memory for it, a child merely shares its parent's slot until it ends.
  (void)::pthread_atfork(beforeFork, afterForkInParent, afterForkInChild);
}

// When the library is loaded: a fork that has begun before the handlers are registered runs none of them, and its child
// could find a lock held by a thread that it does not have. startOnce() sees to them where nothing runs at load time.
[[gnu::constructor]] void watchForksEarly() { ::pthread_once(&g_forksWatched, watchForks); }

void startOnce() {
  g_hasEndKey = ::pthread_key_create(&g_endKey, veki_threadEnds) == 0;
  watchForksEarly();
}

ThreadState* makeState() noexcept {
  if (regionAttach() != 0) return nullptr;
  ThreadState* state = g_states.make();
  if (state == nullptr) return nullptr;
  if (!watchEnd(state)) {  // nobody would give it back
    g_states.giveBack(state);
    return nullptr;
  }
  ossThreadName(state->name, sizeof state->name);
  state->processId = ossProcessId();
  state->threadId = ossThreadId();
  state->serial = regionNextThreadSerial();
  state->threadSlot = regionThreadEnter(state->threadId, state->name);
  return state;
}

}  // namespace

bool processIsEnding() noexcept { return g_ending.load(std::memory_order_relaxed); }

// Not under the attach lock: fork takes that lock while it holds the system's own over the list of fork handlers.
void threadFacilityStart() noexcept {
  const LockDepth inside;
  ::pthread_once(&g_started, startOnce);
}

ThreadState* threadSelf() noexcept {
  if (t_self == busyState()) return nullptr;
  if (t_self != nullptr) return t_self;
  if (processIsEnding()) return nullptr;
  const ErrnoKept kept;
  t_self = busyState();
  ThreadState* state = makeState();
  t_self = state;
  return state;
}

}  // namespace vek
