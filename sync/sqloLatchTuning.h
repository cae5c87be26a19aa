// How long a thread spins, yields and rests before and while it waits for a latch.
#pragma once

#include <cstdint>

namespace vek {

// What VEK_LATCH_TUNE can set, for all latch types or, written as <type>.KEYWORD, for one slot.
struct LatchTuning {
  std::uint32_t outer;  // spin latch: rounds of spinning, each ended by yielding the processor, before the thread rests
  std::uint32_t inner;  // spin latch: looks at the byte per round
  std::uint32_t waste;  // spin latch: pause instructions between two looks
  std::uint32_t sloop;  // shared latch: attempts before a shared request sleeps
  std::uint32_t xloop;  // the same for an exclusive request
  std::uint32_t swaste;    // pause instructions before each attempt of a shared request
  std::uint32_t xwaste;    // of an exclusive one
  std::uint32_t sleepMin;  // spin latch: microseconds of the first rest
  std::uint32_t sleepMid;  // rests double up to here, then grow by sleepInc
  std::uint32_t sleepMax;  // the longest
  std::uint32_t sleepInc;
  std::uint32_t disableSmtPriorities;   // 1: spinning does not hint the processor that it spins
  std::uint32_t enableAdaptiveSleep;    // 1: a thread's first rest is half as long as its last one was
  std::uint32_t enableConstrainedSpin;  // 1: at most fighterCount threads of a process spin on shared latches at once
  std::uint32_t fighterCount;
};

// The tuning of a latch type. There are 128 slots; types from 127 on share the last one.
inline constexpr std::uint32_t LATCH_TUNING_SLOTS = 128;
const LatchTuning& sqloi_tuning(std::uint32_t typeId) noexcept;

// Reads the settings once per process; called where no latch is waited for.
void sqloi_prepareTuning() noexcept;

// Spins for so many pauses, as the tuning wants it.
void sqloi_wasteTime(const LatchTuning& tuning, std::uint32_t pauses) noexcept;

// Leave to spin on a shared latch; without it the thread sleeps at once.
class SpinLeave {
 public:
  explicit SpinLeave(const LatchTuning& tuning) noexcept;
  ~SpinLeave();
  SpinLeave(const SpinLeave&) = delete;
  SpinLeave& operator=(const SpinLeave&) = delete;
  bool granted() const noexcept { return granted_; }

 private:
  bool counted_;
  bool granted_;
};

// The rests of a thread that waits for a spin latch, one longer than the other.
class LatchRest {
 public:
  explicit LatchRest(const LatchTuning& tuning) noexcept;
  void rest() noexcept;  // sqlorest

 private:
  const LatchTuning& tuning_;
  std::uint32_t microseconds_;
};

}  // namespace vek
