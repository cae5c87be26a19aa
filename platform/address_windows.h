// Where in the address space the memory of sets lies.
//
// Each set lies inside one window of 4 GiB that starts at a multiple of 4 GiB, so that the upper half of an address
// names the window. Windows of sets of one process and of sets that processes share come from ranges of their own; what
// is shared is mapped at the same address everywhere.
//
// The ranges lie where the kernel places neither programs nor what programs map. Sanitizers keep parts of the address
// space for themselves, so theirs are others: an address is not the same in a build with and one without.
#pragma once

#include <cstdint>

namespace vek {

struct AddressRange {
  std::uint64_t begin;
  std::uint32_t windows;

  constexpr std::uint64_t end() const noexcept { return begin + (std::uint64_t{windows} << 32); }
};

inline constexpr std::uint64_t ADDRESS_WINDOW_BYTES = std::uint64_t{1} << 32;

#if defined(__SANITIZE_THREAD__)
#define VEK_THREAD_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define VEK_THREAD_SANITIZER 1
#endif
#endif

#if defined(VEK_THREAD_SANITIZER)
// The thread sanitizer lets programs use the lowest 512 GiB, and only islands above.
inline constexpr AddressRange SHARED_WINDOWS = {0x0010'0000'0000, 32};
inline constexpr AddressRange PRIVATE_WINDOWS = {0x0040'0000'0000, 32};
#else
// The address sanitizer's shadow ends at 16 TiB and its heap begins at 96 TiB; programs are placed above 80 TiB.
inline constexpr AddressRange SHARED_WINDOWS = {0x2000'0000'0000, 1024};
inline constexpr AddressRange PRIVATE_WINDOWS = {0x3000'0000'0000, 1024};
#endif

static_assert(SHARED_WINDOWS.begin % ADDRESS_WINDOW_BYTES == 0 && PRIVATE_WINDOWS.begin % ADDRESS_WINDOW_BYTES == 0);
static_assert(SHARED_WINDOWS.end() <= PRIVATE_WINDOWS.begin);

// The first shared window holds no set: the parts of the instance region that have latches in them are mapped there,
// since those are known by their address.
inline constexpr std::uint64_t MEMORY_CONTROLLER_ADDRESS = SHARED_WINDOWS.begin;
inline constexpr std::uint64_t MEMORY_SETS_ADDRESS = SHARED_WINDOWS.begin + ADDRESS_WINDOW_BYTES / 2;

// Where a window of a range begins.
constexpr std::uint64_t addressOfWindow(const AddressRange& range, std::uint32_t window) noexcept {
  return range.begin + (std::uint64_t{window} << 32);
}

}  // namespace vek
