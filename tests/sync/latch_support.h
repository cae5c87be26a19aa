// What tests of latches share: latches in memory that processes share, and threads that stress them.
#pragma once

#include <functional>
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

// Runs `body(number)` in as many threads and waits for them.
inline void inThreads(unsigned count, const std::function<void(unsigned)>& body) {
  std::vector<std::thread> threads;
  for (unsigned i = 0; i < count; ++i) threads.emplace_back(body, i);
  for (std::thread& thread : threads) thread.join();
}

// A small generator of numbers, for decisions that a seed repeats (xorshift32).
class Dice {
 public:
  explicit Dice(std::uint32_t seed) : state_(seed * 2654435761U | 1U) {}
  std::uint32_t operator()(std::uint32_t sides) {
    state_ ^= state_ << 13;
    state_ ^= state_ >> 17;
    state_ ^= state_ << 5;
    return state_ % sides;
  }

 private:
  std::uint32_t state_;
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
