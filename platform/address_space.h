// Memory at addresses of our choosing.
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

}  // namespace vek
