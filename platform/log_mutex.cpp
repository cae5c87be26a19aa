#include "platform/log_mutex.h"

#include <atomic>
#include <mutex>

namespace vek {
namespace {

constinit std::mutex g_mutex;

// Whether this thread holds the mutex; and whether it took it for a fork.
thread_local constinit std::atomic<bool> t_holds __attribute__((tls_model("initial-exec"))) = false;
thread_local constinit bool t_forks __attribute__((tls_model("initial-exec"))) = false;

}  // namespace

void logMutexLock() noexcept {
  g_mutex.lock();
  t_holds.store(true, std::memory_order_relaxed);
  std::atomic_signal_fence(std::memory_order_seq_cst);
}

void logMutexUnlock() noexcept {
  if (!logMutexIsMine()) return;
  std::atomic_signal_fence(std::memory_order_seq_cst);
  t_holds.store(false, std::memory_order_relaxed);
  g_mutex.unlock();
}

bool logMutexIsMine() noexcept { return t_holds.load(std::memory_order_relaxed); }

void logMutexLockForFork() noexcept {
  if (logMutexIsMine()) return;
  logMutexLock();
  t_forks = true;
}

void logMutexUnlockAfterFork() noexcept {
  if (!t_forks) return;
  t_forks = false;
  logMutexUnlock();
}

}  // namespace vek
