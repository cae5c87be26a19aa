// What the engine tells the library about itself: its instance, its threads, the names of its functions.
#pragma once

#include <veksys/types.h>

#include <cstdint>
#include <string>

namespace demo {

// Installs the engine as the library's host. Call it once, before any thread is started. The instance is "demo" unless
// VEKINSTANCE names another. 0, or SQLO_INV_PARM: that is no instance name.
SqlzZrc installHost() noexcept;

// Makes the calling thread an engine unit for as long as the object lives: its number becomes the correlator of what it
// traces, its name the thread's name.
class EngineUnit {
 public:
  EngineUnit(std::uint64_t number, const std::string& name) noexcept;
  ~EngineUnit();
  EngineUnit(const EngineUnit&) = delete;
  EngineUnit& operator=(const EngineUnit&) = delete;
};

// Numbers of engine units. A worker's first thread has its base, the threads that serve have base + 1, base + 2, ...
inline constexpr std::uint64_t kCoordinatorUnit = 1;
inline constexpr std::uint64_t kClientUnit = 2;
constexpr std::uint64_t workerUnit(unsigned worker, unsigned thread = 0) noexcept { return worker * 100ULL + thread; }

}  // namespace demo
