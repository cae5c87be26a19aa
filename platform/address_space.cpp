#include "platform/address_space.h"

#include <errno.h>
#include <sys/mman.h>

#include <bit>

#include "platform/osse.h"

namespace vek {
namespace {

void* at(std::uint64_t address) noexcept { return std::bit_cast<void*>(address); }

int mapAt(std::uint64_t address, std::size_t bytes, int flags, int fd, std::uint64_t offset) noexcept {
  void* mapped = ossCalls().mmap(at(address), bytes, PROT_READ | PROT_WRITE, flags, fd, static_cast<off_t>(offset));
  if (mapped == MAP_FAILED) return errno;
  if (mapped == at(address)) return 0;
  // A kernel that does not know the flag takes the address as a hint.
  ossCalls().munmap(mapped, bytes);
  return EEXIST;
}

}  // namespace

int ossMapSharedAt(std::uint64_t address, std::size_t bytes, int fd, std::uint64_t offset) noexcept {
  return mapAt(address, bytes, MAP_SHARED | MAP_FIXED_NOREPLACE, fd, offset);
}

int ossRemapSharedAt(std::uint64_t address, std::size_t bytes, int fd, std::uint64_t offset) noexcept {
  return mapAt(address, bytes, MAP_SHARED | MAP_FIXED, fd, offset);
}

}  // namespace vek
