// What tests of latches share: latches in memory that processes share, and threads that stress them.
#pragma once

#include <random>

#include "platform/region.h"
#include "platform/support.h"
#include "veksys/codes.h"
#include "veksys/sync.h"

namespace vek::synctest {

inline constexpr std::uint16_t kType = 77;

// An instance whose latches between processes leave no semaphores behind, whatever became of its processes.
class Instance : public platformtest::Instance {
 public:
  ~Instance() {
    RegionHeader header = {};
    if (std::FILE* file = std::fopen(region().c_str(), "rb"); file != nullptr) {
      const bool whole = std::fread(static_cast<void*>(&header), sizeof header, 1, file) == 1;
      (void)std::fclose(file);
      if (whole) removeSemaphores(header);
    }
  }

 private:
  static void removeSemaphores(const RegionHeader& header) {
    char stamp[32];
    std::snprintf(stamp, sizeof stamp, ".%llx_", static_cast<unsigned long long>(header.createdRealtimeNs));
    for (const auto& entry : std::filesystem::directory_iterator("/dev/shm")) {
      const std::string name = entry.path().filename().string();
      std::error_code ignored;
      if (name.starts_with("sem.VEKSEM") && name.find(stamp) != std::string::npos)
        std::filesystem::remove(entry.path(), ignored);
    }
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

// Has a panic end the process with a code of its own after it has told `zrc` through a place that others share.
inline SqlzZrc* g_panicPlace = nullptr;
inline void reportPanics(SqlzZrc* place) {
  g_panicPlace = place;
  platformtest::installHost([](VekHost& host) {
    host.panic = [](void*, SqlzZrc zrc, const char*) {
      *g_panicPlace = zrc;
      ::_exit(0);
    };
  });
}

}  // namespace vek::synctest
