// What tests of latches share: latches in memory that processes share, and threads that stress them.
#pragma once

#include <random>

#include "platform/region.h"
#include "platform/semaphore.h"
#include "platform/support.h"
#include "veksys/codes.h"
#include "veksys/sync.h"

namespace vek::synctest {

inline constexpr std::uint16_t kType = 77;

// An instance whose latches between processes leave no semaphores behind, whatever became of its processes.
class Instance : public platformtest::Instance {
 public:
  ~Instance() {
    RegionHeader header;
    std::ifstream file(region(), std::ios::binary);
    if (!file.read(reinterpret_cast<char*>(&header), sizeof header)) return;
    char identity[96];
    regionIdentity(header, identity, sizeof identity);
    ossRemoveSemaphoresOf((std::string("/") + REGION_SEMAPHORE_PREFIX + identity + "_").c_str());
  }
};

using platformtest::inThreads;

// Decisions that a seed repeats.
class Dice {
 public:
  explicit Dice(std::uint32_t seed) : random_(seed) {}
  std::uint32_t operator()(std::uint32_t sides) { return static_cast<std::uint32_t>(random_() % sides); }

 private:
  std::mt19937 random_;
};

// Has a panic tell `zrc` through a place that others share, and end the process: with 1 if an expectation failed in it.
inline SqlzZrc* g_panicPlace = nullptr;
inline void reportPanics(SqlzZrc* place) {
  g_panicPlace = place;
  platformtest::installHost([](VekHost& host) {
    host.panic = [](void*, SqlzZrc zrc, const char*) {
      *g_panicPlace = zrc;
      platformtest::endAtOnce();
    };
  });
}

}  // namespace vek::synctest
