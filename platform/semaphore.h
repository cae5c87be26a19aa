// Counting semaphores: named ones, which several processes open by name, and ones in the memory of this process.
//
// A named one is a POSIX semaphore. It belongs to this user alone: one that somebody else has put under its name is not
// opened. Waiting is no cancellation point.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vek {

// The memory of a semaphore.
struct alignas(16) OssSemaphore {
  unsigned char bytes[32];
};

// Opens a named semaphore ("/" and up to 250 characters), made with count 0 when it is missing. 0 or an errno value;
// EPERM: it belongs to another user or others may use it.
int ossOpenSemaphore(const char* name, OssSemaphore** out) noexcept;
void ossCloseSemaphore(OssSemaphore* semaphore) noexcept;
void ossRemoveSemaphore(const char* name) noexcept;

// Removes every named semaphore whose name begins with `prefix` ("/" first): what dead processes left behind.
void ossRemoveSemaphoresOf(const char* prefix) noexcept;

// One of this process, with count 0, in memory of the caller's.
void ossInitSemaphore(OssSemaphore* semaphore) noexcept;

// Adds one, which lets one waiter go.
void ossPostSemaphore(OssSemaphore* semaphore) noexcept;

// Takes one, waiting up to `milliseconds` for it (0: not at all). False: there was none in that time.
bool ossWaitSemaphore(OssSemaphore* semaphore, unsigned milliseconds) noexcept;

}  // namespace vek
