#include "platform/address_space.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/mman.h>

#include <bit>

#include "platform/osse.h"

namespace vek {
namespace {

constexpr std::uint32_t kLargePageBytes = 2 * 1024 * 1024;  // of the processors that this runs on

void* at(std::uint64_t address) noexcept { return std::bit_cast<void*>(address); }

int mapAt(std::uint64_t address, std::size_t bytes, int protection, int flags, int fd, std::uint64_t offset) noexcept {
  void* mapped = ossCalls().mmap(at(address), bytes, protection, flags, fd, static_cast<off_t>(offset));
  if (mapped == MAP_FAILED) return errno;
  if (reinterpret_cast<std::uintptr_t>(mapped) == address) return 0;
  // A kernel that does not know the flag takes the address as a hint.
  ossCalls().munmap(mapped, bytes);
  return EEXIST;
}

int outcome(int result) noexcept { return result == 0 ? 0 : errno; }

}  // namespace

int ossMapSharedAt(std::uint64_t address, std::size_t bytes, int fd, std::uint64_t offset) noexcept {
  return mapAt(address, bytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED_NOREPLACE, fd, offset);
}

int ossRemapSharedAt(std::uint64_t address, std::size_t bytes, int fd, std::uint64_t offset) noexcept {
  return mapAt(address, bytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED, fd, offset);
}

int ossReserveAt(std::uint64_t address, std::size_t bytes) noexcept {
  return mapAt(address, bytes, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_FIXED_NOREPLACE, -1, 0);
}

int ossUnmapAt(std::uint64_t address, std::size_t bytes) noexcept {
  return outcome(ossCalls().munmap(at(address), bytes));
}

int ossCommit(std::uint64_t address, std::size_t bytes) noexcept {
  return outcome(ossCalls().mprotect(at(address), bytes, PROT_READ | PROT_WRITE));
}

int ossDecommit(std::uint64_t address, std::size_t bytes) noexcept {
  if (ossCalls().madvise(at(address), bytes, MADV_DONTNEED) != 0) return errno;
  return outcome(ossCalls().mprotect(at(address), bytes, PROT_NONE));
}

int ossMakeMemoryFile(const char* path, std::uint64_t bytes, int* fdOut) noexcept {
  ossCalls().unlink(path);
  int error = ossOpen(path, O_RDWR | O_CREAT | O_EXCL, 0600, fdOut);
  if (error != 0) return error;
  error = ossTruncate(*fdOut, bytes);
  if (error == 0) return 0;
  ossClose(*fdOut);
  ossCalls().unlink(path);
  return error;
}

int ossOpenMemoryFile(const char* path, int* fdOut) noexcept { return ossOpen(path, O_RDWR, 0, fdOut); }

int ossPunchHole(int fd, std::uint64_t offset, std::uint64_t bytes) noexcept {
  const OssUncancelled here;
  return outcome(ossCalls().fallocate(fd, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, static_cast<off_t>(offset),
                                      static_cast<off_t>(bytes)));
}

int ossPreferLargePages(std::uint64_t address, std::size_t bytes) noexcept {
  return outcome(ossCalls().madvise(at(address), bytes, MADV_HUGEPAGE));
}

std::uint32_t ossLargePageBytes() noexcept { return kLargePageBytes; }

int ossPin(std::uint64_t address, std::size_t bytes) noexcept { return outcome(ossCalls().mlock(at(address), bytes)); }

}  // namespace vek
