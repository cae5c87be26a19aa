// The ring as this process maps it.
#pragma once

#include <atomic>
#include <cstdint>

#include "platform/trc_format.h"
#include "veksys/types.h"

namespace vek {

// The trace's word in the instance region: which ring exists and whether it is on. Every trace point reads it.
struct TrcControl {
  std::atomic<std::uint64_t> state;           // generation << 1 | on; 0: no ring
  std::atomic<std::uint64_t> lastGeneration;  // of any ring so far
};

// A mapping of one generation of the ring. Counted: it is unmapped when it is not the current one any more and the
// last thread has left it. The numbers are this process's own copies, so that damage in shared memory cannot lead a
// writer astray.
struct TrcRing {
  char* base = nullptr;
  std::uint64_t mappedBytes = 0;
  std::uint64_t generation = 0;
  std::uint64_t ticksPerSecond = 0;
  std::uint64_t segmentBytes = 0;
  std::uint32_t segmentCount = 0;
  std::uint32_t users = 0;  // guarded by the ring lock
  std::atomic<std::uint64_t> nextSweepTicks{0};
  std::atomic<std::uint32_t> ownedMet{0};  // owned segments that searches met since the last sweep

  TrcRingHeader* header() const noexcept { return reinterpret_cast<TrcRingHeader*>(base); }
  TrcSegmentDescriptor* descriptor(std::uint32_t index) const noexcept {
    return reinterpret_cast<TrcSegmentDescriptor*>(base + TRC_HEADER_BYTES) + index;
  }
  char* segment(std::uint32_t index) const noexcept {
    return base + trcSegmentsOffset(segmentCount) + index * segmentBytes;
  }
};

// The control words, null before the region is attached.
TrcControl* trcControl() noexcept;

// The header as this process maps it, null when it maps no ring of this generation.
const TrcRingHeader* trcCurrentHeader(std::uint64_t generation) noexcept;

// The ring of a generation, mapped on first use and counted for the caller; null when it is gone or cannot be mapped.
TrcRing* trcEnterRing(std::uint64_t generation) noexcept;
void trcLeaveRing(TrcRing* ring) noexcept;

// The descriptor of a private ring (a process without a shared region), -1 when there is none.
int trcPrivateRing() noexcept;

void trcLockForFork() noexcept;
void trcUnlockAfterFork() noexcept;

// Checks the constants of a ring header page, which may come from anywhere: either copy will do. Null when neither is
// sound or the object is smaller than they say.
const TrcRingConstants* trcSoundConstants(const TrcRingHeader& header, std::uint64_t objectBytes) noexcept;

// What was cleared, from whichever copy is sound.
struct TrcCleared {
  std::uint64_t sequence;
  std::uint64_t ticks;
};
TrcCleared trcCleared(const TrcRingHeader& header) noexcept;
void trcStoreCleared(TrcRingHeader& header, const TrcCleared& cleared) noexcept;

// Counts the complete records at the start of a segment.
std::uint64_t trcCountRecords(const char* segment, std::uint64_t segmentBytes, std::uint64_t sequence) noexcept;

// The words of a record at `at`, 0 when there is no whole record of this segment there. `room` is in words.
std::uint32_t trcCheckRecord(const std::uint64_t* at, std::uint64_t room, std::uint64_t sequence) noexcept;

}  // namespace vek
