// Reading a small file whole.
#pragma once

#include <cstddef>
#include <memory>
#include <span>

namespace vek {

// The bytes of a file, owned.
struct FileBytes {
  std::unique_ptr<char[]> bytes;
  std::size_t count = 0;

  std::span<const char> span() const noexcept { return {bytes.get(), count}; }
};

// Reads a regular file of at most `mostBytes`. Never waits for a pipe or a device, follows no symbolic link as the last
// component. A file that shrinks meanwhile gives the bytes that were read.
//
//   Result   0, or an errno value: EINVAL when it is no regular file, EFBIG when it is too large, ENOMEM; then `out` is
//            left as it was
int ossReadFile(const char* path, std::size_t mostBytes, FileBytes* out) noexcept;

}  // namespace vek
