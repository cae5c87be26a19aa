// Memory at addresses of our choosing: address space is reserved, then parts of it are committed and decommitted.
//
// Common rules: addresses and sizes are multiples of 4 KiB. Results are 0 or a positive errno value; a range of which
// an operation failed is still as committed as before, though its contents may be zeros. What is committed reads as
// zeros the first time, and again after it has been decommitted.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vek {

// Maps part of a file to be shared at exactly this address.
//
//   Result   0; EEXIST: something else is mapped in that range; else what the system says
int ossMapSharedAt(std::uint64_t address, std::size_t bytes, int fd, std::uint64_t offset) noexcept;

// The same in the place of what this process has mapped there.
int ossRemapSharedAt(std::uint64_t address, std::size_t bytes, int fd, std::uint64_t offset) noexcept;

// Reserves address space of this process, without access; EEXIST as above.
int ossReserveAt(std::uint64_t address, std::size_t bytes) noexcept;

// Gives back whatever is mapped there.
int ossUnmapAt(std::uint64_t address, std::size_t bytes) noexcept;

// Commits and decommits reserved address space of this process.
int ossCommit(std::uint64_t address, std::size_t bytes) noexcept;
int ossDecommit(std::uint64_t address, std::size_t bytes) noexcept;

// Makes a file for memory to be shared, owner-only, in the place of one that may be left over; opens one that is there.
int ossMakeMemoryFile(const char* path, std::uint64_t bytes, int* fdOut) noexcept;
int ossOpenMemoryFile(const char* path, int* fdOut) noexcept;

// Gives back the blocks of a part of a file; its size stays. Committing is ossAllocateRange (osse.h).
int ossPunchHole(int fd, std::uint64_t offset, std::uint64_t bytes) noexcept;

// Has the range made of large pages from now on, where the system does that.
int ossPreferLargePages(std::uint64_t address, std::size_t bytes) noexcept;
std::uint32_t ossLargePageBytes() noexcept;

// Keeps committed memory in the machine's own.
int ossPin(std::uint64_t address, std::size_t bytes) noexcept;

}  // namespace vek
