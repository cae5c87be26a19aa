// The semaphore elements that waiters of shared latches sleep on.
//
// An element has two counting semaphores, one for shared and one for exclusive waiters, and the bookkeeping of who
// sleeps on them, which the latch's cs guards.
//
//   private latch            draws an element of its process when its first waiter comes, gives it back with the last;
//                            its semaphores lie in the element
//   latch between processes  draws one from the instance region when it is initialised, for life; its semaphores are
//                            named POSIX semaphores, opened by each process when it first needs them
//
// What processes that died leave behind: an element drawn in an earlier run of the instance is free, and its semaphores
// are removed when it is drawn again. The post of a waiter that was killed before it took it is taken by whoever finds
// it dead: it would wake a waiter that the bookkeeping still counts as asleep.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "platform/semaphore.h"
#include "veksys/types.h"

namespace vek {

enum class WaiterKind : std::uint32_t {
  kShared = 0,
  kExclusive = 1,
  kUpgrade = 2,  // the one shared holder that waits to become the exclusive one
};
inline constexpr std::uint32_t WAITER_KINDS = 3;

struct SemElement {
  std::atomic<std::uint32_t> run;       // of the instance in which it was drawn; 0 free
  std::uint32_t generation;             // counts how often it was drawn
  std::uint32_t waiters[WAITER_KINDS];  // asleep or on the way there, and not yet posted, by kind
  std::uint32_t attached;               // threads that will look at the element again
  std::uint32_t upgrading;              // 1: a shared holder has begun to wait to become the exclusive one
  std::uint32_t reserved;
};
static_assert(sizeof(SemElement) == 32);

// One of a private latch.
struct LocalSemElement {
  SemElement element = {};
  OssSemaphore semaphores[WAITER_KINDS] = {};
};

// A latch's reference to its element: 0 none; the number of one in the region plus one; else the address of a local
// one.
using SemElementRef = std::uint64_t;

// Draws an element of the region. SQLO_NOMEM_LATCH_POOL: none is left; SQLO_REGION_...: this process shares no region.
SqlzZrc sqloi_drawSharedElement(SemElementRef* out) noexcept;
// Draws one of this process, which has 1,024 of them; 0 when all are in use.
SemElementRef sqloi_drawLocalElement() noexcept;
void sqloi_freeElement(SemElementRef reference) noexcept;

// Null when the reference leads nowhere.
SemElement* sqloi_elementOf(SemElementRef reference) noexcept;

void sqloi_postElement(SemElementRef reference, WaiterKind kind, std::uint32_t count) noexcept;
// True when a post was taken.
bool sqloi_waitElement(SemElementRef reference, WaiterKind kind, unsigned milliseconds) noexcept;

// Closes what this process has opened. Nobody may be waiting.
void sqloi_closeSemaphores() noexcept;

// The name of an element's semaphore: "%sVEKSEM%s_%d%p" with `prefix`, `instance`, `number` and `address`. Returns the
// characters, 0 when it does not fit.
std::size_t sqloConstructResourceNameForAddress(char* buffer, std::size_t bytes, const char* prefix,
                                                const char* instance, int number, const void* address) noexcept;

}  // namespace vek
