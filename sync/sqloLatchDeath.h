// Latches of holders that are gone.
//
// A thread that has waited for a while looks for who holds the latch: it reads the marks of all threads of the
// instance. The reading proves something only when no holder can leave meanwhile:
//
//   shared latch  the reader has its cs, and a waiter bit is set: without cs nobody gives the latch back then
//   spin latch    the reader changes the byte from 1 to 2; whoever gives the latch back or takes it changes that again
//
// A holder that lives is therefore seen with its mark ACTIVE. What the word counts beyond those belongs to the dead:
//
//   exclusive, and no living mark ACTIVE            a dead one holds it
//   shared holders > living marks that are ACTIVE   the rest are dead
//
// The marks of the dead are taken over under the region lock, one rescuer at a time; if it dies itself in the middle,
// it leaves its own mark beside theirs.
#pragma once

#include <cstdint>

#include "sync/sqloLatchTable.h"
#include "veksys/sync/latch.h"

namespace vek {

enum class Rescue {
  kNothing,  // its holders live, or nobody can tell: wait on
  kRetry,    // something was repaired: try again
  kOwned,    // the caller holds the latch exclusively now, its data repaired
  kRefused,  // the holder died and the type refuses
  kPanic,    // the holder died and the process is to stop; not answered to waiters
};

// For a thread that waits for a spin latch, or for a shared one, and is marked so in `hold`. Takes cs and the region
// lock.
Rescue sqloi_rescueSpin(SqloSpinLatch& latch, LatchHold& hold) noexcept;
Rescue sqloi_rescueShared(SQLO_SLATCH_CAS32& latch, LatchHold& hold) noexcept;

// How long a waiter sleeps before it looks again: ten milliseconds at first, doubling up to a second.
class WaitSlice {
 public:
  unsigned next() noexcept {
    const unsigned slice = milliseconds_;
    milliseconds_ = milliseconds_ < 1000 / 2 ? milliseconds_ * 2 : 1000;
    return slice;
  }

 private:
  unsigned milliseconds_ = 10;
};

}  // namespace vek
