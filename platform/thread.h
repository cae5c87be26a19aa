// The library's state of a thread, its end, and fork.
//
// One initial-exec thread-local pointer leads to everything the library knows of a thread. It is made on the thread's
// first call that needs it and given back when the thread ends, in a fixed order:
//
//   1. memory caches flushed      (port)
//   2. latches checked            (port; may log and trace)
//   3. trace segment released
//   4. thread slot released
//
// The main thread has no end of its own: process exit runs the same steps for the exiting thread. A child of fork
// keeps nothing of the parent: its state reads as if it had never called the library, and it takes slots of its own
// before it does anything shared.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/trc_writer.h"

struct SqloLatchTable;

namespace vek {

struct ThreadState {
  TrcWriter trace;           // first: the trace fast path finds it at offset 0
  std::uint32_t threadSlot;  // index in the region's thread section, or REGION_NO_SLOT
  std::uint32_t threadId;
  std::uint64_t serial;  // unique among all threads of the instance
  std::uint32_t processId;
  char name[16];  // as the thread was called when this state was made
};

// Null until threadSelf() has made it.
extern thread_local constinit ThreadState* t_self __attribute__((tls_model("initial-exec")));

// The calling thread's latch tracking table: made by sync/ in pages of its own on the thread's first capture, taken
// down by it when the thread ends. Beside the state and not in it, since it is on the way of every capture.
extern thread_local constinit SqloLatchTable* t_latchTable __attribute__((tls_model("initial-exec")));
inline constexpr std::size_t LATCH_TABLE_BYTES = 36'864;  // nine pages

// The calling thread's state, made on the first call; null when there is no memory or no
// thread-specific key for it, while the thread ends, or after process exit has begun.
ThreadState* threadSelf() noexcept;

// Installs the end-of-thread key and the fork handlers, once per process; cheap afterwards.
void threadFacilityStart() noexcept;

// True once process exit has begun: nothing shared is entered any more.
bool processIsEnding() noexcept;

}  // namespace vek
