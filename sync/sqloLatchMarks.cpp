#include "sync/sqloLatchMarks.h"

namespace vek {

bool LivingProcesses::lives(std::uint64_t owner) noexcept {
  const std::uint32_t slot = regionOwnerSlot(owner);
  if (slot >= REGION_PROCESS_SLOTS) return false;
  Answer& answer = answers_[slot];
  if (answer.known == kUnknown || answer.generation != regionOwnerGeneration(owner))
    answer = {regionOwnerGeneration(owner), regionOwnerLives(owner) ? kLives : kDead};
  return answer.known == kLives;
}

}  // namespace vek
