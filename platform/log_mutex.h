// The mutex that serialises the log within a process, and guards everything the logger keeps: the record buffer, the
// files, what is still to be said. First in the lock order: its holder may take any lock of the library, and nobody
// takes it while holding one.
//
// The holder is noted by thread. A thread that holds it already does not wait for itself: a log call from inside a log
// call finds `logMutexIsMine` and goes no further, whether it comes from a formatter or from a signal handler.
#pragma once

namespace vek {

void logMutexLock() noexcept;

// Gives the mutex back when the calling thread is its holder; does nothing otherwise.
void logMutexUnlock() noexcept;

bool logMutexIsMine() noexcept;

// For the fork handlers. A thread that forks while it holds the mutex (from inside a formatter) keeps it, in both
// processes.
void logMutexLockForFork() noexcept;
void logMutexUnlockAfterFork() noexcept;

}  // namespace vek
