// Facts about the machine and about what this process may use of it.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vek {

struct CacheFacts {
  std::uint32_t level;  // 1..4; 0: no further cache
  char kind[16];        // "Data", "Instruction", "Unified"
  std::uint64_t bytes;
};

struct LimitFacts {
  const char* name;  // "open files"
  const char* unit;  // "bytes", "" for a count
  std::uint64_t soft;
  std::uint64_t hard;  // SYSTEM_FACTS_UNLIMITED: none
};

inline constexpr std::uint64_t SYSTEM_FACTS_UNLIMITED = UINT64_MAX;
inline constexpr std::size_t SYSTEM_FACTS_CACHES = 8;
inline constexpr std::size_t SYSTEM_FACTS_LIMITS = 8;

// Texts that are not known are empty, numbers 0.
struct SystemFacts {
  char host[256];
  char system[128];      // name, release and version of the kernel
  char machine[64];      // "x86_64"
  char libcVersion[64];  // of the C library: "glibc 2.36"
  char boot[37];         // identifier of this boot
  char processor[128];
  char features[4096];  // of the processor, as the kernel names them
  std::uint32_t processorsOnline;
  std::uint32_t processorsUsable;  // by this process
  std::uint32_t sockets;
  std::uint32_t coresPerSocket;
  std::uint32_t threadsPerCore;
  CacheFacts caches[SYSTEM_FACTS_CACHES];
  std::uint64_t pageBytes;
  std::uint64_t memoryBytes;
  std::uint64_t memoryAvailableBytes;
  std::uint64_t memoryLimitBytes;  // of the control group; SYSTEM_FACTS_UNLIMITED: none
  std::uint64_t swapBytes;
  LimitFacts limits[SYSTEM_FACTS_LIMITS];
  std::size_t limitCount;
};

// Asks the kernel for all of them. Takes no lock and allocates nothing, but reads a dozen small files; what cannot be
// read stays unknown.
void ossSystemFacts(SystemFacts* out) noexcept;

// The memory of the machine, and what of it this process may use.
struct MemoryFacts {
  std::uint64_t memoryBytes;
  std::uint64_t availableBytes;  // without swapping
  std::uint64_t limitBytes;      // of the control group; SYSTEM_FACTS_UNLIMITED: none
};

// Asks the kernel for them: three small files and those of the control groups. False: the machine's memory is not
// known.
bool ossMemoryFacts(MemoryFacts* out) noexcept;

}  // namespace vek
