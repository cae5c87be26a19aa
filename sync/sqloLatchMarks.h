// Reading the marks of all threads of the instance.
#pragma once

#include <cstdint>

#include "platform/region.h"
#include "sync/sqloLatchTable.h"

namespace vek {

// A mark as it was read, and whose it is.
struct LatchMarkSeen {
  std::uint64_t latch;
  std::uint64_t word;
  std::uint64_t owner;  // of the thread's process
  std::uint32_t slot;   // of the thread
  std::uint32_t index;  // of the mark
  bool processIsDead;
  bool threadHasEnded;

  bool isGone() const noexcept { return processIsDead || threadHasEnded; }
};

// Tells whether the processes of thread slots live, asking once for each.
class LivingProcesses {
 public:
  bool lives(std::uint64_t owner) noexcept;

 private:
  enum Known : std::uint8_t { kUnknown, kLives, kDead };
  struct Answer {
    std::uint32_t generation;
    Known known;
  };
  Answer answers_[REGION_PROCESS_SLOTS] = {};
};

// Reads one mark; false when it is free. One that changes meanwhile is read again: it may be that of a holder, who
// notes since when it holds.
inline bool readMark(const LatchMark& mark, std::uint64_t* latch, std::uint64_t* word) noexcept {
  do {
    *word = mark.word.load(std::memory_order_acquire);
    if ((*word & MARK_STATE) == 0) return false;
    *latch = mark.latch.load(std::memory_order_acquire);
  } while (mark.word.load(std::memory_order_relaxed) != *word);
  return true;
}

// Visits every mark that is not free.
template <class Visit>
void visitMarks(LivingProcesses& processes, Visit visit) noexcept {
  const auto* threads = static_cast<const RegionThread*>(regionSection(RegionSectionId::kThreads));
  for (std::uint32_t slot = 0; threads != nullptr && slot < REGION_THREAD_SLOTS; ++slot) {
    const std::uint64_t owner = threads[slot].owner.load(std::memory_order_acquire);
    const auto* page = owner == 0 ? nullptr : static_cast<const LatchPage*>(regionThreadPageOf(slot));
    if (page == nullptr) continue;
    const bool ended = threads[slot].hasEnded.load(std::memory_order_acquire) != 0;
    for (std::uint32_t index = 0; index < LATCH_MARKS; ++index) {
      std::uint64_t latch = 0;
      std::uint64_t word = 0;
      if (readMark(page->marks[index], &latch, &word))
        visit(LatchMarkSeen{latch, word, owner, slot, index, !processes.lives(owner), ended});
    }
  }
}

}  // namespace vek
