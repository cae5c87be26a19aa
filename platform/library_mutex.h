// A mutex of the library that a signal handler cannot deadlock on.
//
// Trace points may run in signal handlers, also in one that interrupts the library inside a critical section of its
// own. The thread notes that it is about to take a lock before it takes it, and the slow path of a point goes no
// further while the note stands: its record is lost, nothing waits for the thread itself.
#pragma once

#include <atomic>
#include <mutex>

namespace vek {

// How many library mutexes the calling thread holds or is about to take.
extern thread_local constinit unsigned t_lockDepth __attribute__((tls_model("initial-exec")));

inline void lockDepthEnter() noexcept {
  ++t_lockDepth;
  std::atomic_signal_fence(std::memory_order_seq_cst);
}
inline void lockDepthLeave() noexcept {
  std::atomic_signal_fence(std::memory_order_seq_cst);
  --t_lockDepth;
}

// The note alone, for the length of a scope.
class LockDepth {
 public:
  LockDepth() noexcept { lockDepthEnter(); }
  ~LockDepth() { lockDepthLeave(); }
  LockDepth(const LockDepth&) = delete;
  LockDepth& operator=(const LockDepth&) = delete;
};

class LibraryMutex {
 public:
  void lock() noexcept {
    lockDepthEnter();
    mutex_.lock();
  }
  bool try_lock() noexcept {
    lockDepthEnter();
    if (mutex_.try_lock()) return true;
    lockDepthLeave();
    return false;
  }
  void unlock() noexcept {
    mutex_.unlock();
    lockDepthLeave();
  }

 private:
  std::mutex mutex_;
};

// True when the calling code interrupted the library inside one of its locks.
inline bool threadIsInsideLock() noexcept { return t_lockDepth != 0; }

}  // namespace vek
