#include "platform/file_read.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <new>
#include <utility>

#include "platform/osse.h"

namespace vek {
namespace {

int readOpened(int fd, std::size_t mostBytes, FileBytes* out) noexcept {
  struct stat status;
  if (ossCalls().fstat(fd, &status) != 0) return errno;
  if (!S_ISREG(status.st_mode)) return EINVAL;
  const auto size = static_cast<std::size_t>(status.st_size);
  if (size > mostBytes) return EFBIG;
  FileBytes file{std::unique_ptr<char[]>(new (std::nothrow) char[size + 1]), 0};
  if (file.bytes == nullptr) return ENOMEM;
  const int error = ossReadAt(fd, file.bytes.get(), size, 0, &file.count);
  if (error == 0) *out = std::move(file);
  return error;
}

}  // namespace

int ossReadFile(const char* path, std::size_t mostBytes, FileBytes* out) noexcept {
  int fd = -1;
  const int error = ossOpen(path, O_RDONLY | O_NONBLOCK | O_NOCTTY, 0, &fd);
  if (error != 0) return error;
  const int result = readOpened(fd, mostBytes, out);
  ossClose(fd);
  return result;
}

}  // namespace vek
