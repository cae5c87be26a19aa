// A thread's place in the shared trace.
#pragma once

#include <atomic>
#include <cstdint>

#include "platform/trc_format.h"

namespace vek {

struct TrcRing;

// A state that the instance's trace state never has: sends the next point of the thread into the slow path.
inline constexpr std::uint64_t TRC_STATE_NEVER = ~0ULL;

struct TrcWriter {
  // The instance's trace state for which this thread is ready to write; TRC_STATE_NEVER while it is not, and while it
  // is inside a point, so that a point in a signal handler does not write into an unfinished record.
  std::uint64_t readyState = TRC_STATE_NEVER;
  std::uint64_t* next = nullptr;   // where the next record's head goes; reads zero
  std::uint64_t* limit = nullptr;  // the segment's last two words, kept for the zeros behind the last record
  std::uint64_t seed = 0;          // the segment's sequence
  std::uint64_t attempted = 0;     // records of this thread in this ring so far, lost ones included
  std::uint64_t lost = 0;
  std::uint64_t written = 0;     // records in this segment
  std::uint64_t retryAt = 0;     // after a search for a segment or ring failed: none before this many attempts
  std::uint64_t generation = 0;  // of the ring that these numbers count in
  TrcSegmentDescriptor* segment = nullptr;
  TrcRing* ring = nullptr;
  bool inside = false;  // between taking a segment and being ready
};

}  // namespace vek
