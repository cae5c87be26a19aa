#include "spool.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "failure.h"

namespace veksys {
namespace {

constexpr std::size_t kCopyBytes = 256U << 10;

std::string temporaryDirectory() {
  const char* named = ::getenv("TMPDIR");
  return named != nullptr && named[0] == '/' ? named : "/var/tmp";
}

[[noreturn]] void refuse(const char* what) {
  sayNo("A temporary file in " + temporaryDirectory() + " " + what + ": " + ::strerror(errno) +
        ". Set TMPDIR to a directory with room, use --merged, or choose fewer records.");
}

int openUnnamed() {
  std::string path = temporaryDirectory() + "/veksys-flow-XXXXXX";
  const int fd = ::mkostemp(path.data(), O_CLOEXEC);
  if (fd < 0) refuse("cannot be created");
  ::unlink(path.c_str());
  return fd;
}

}  // namespace

Spool::~Spool() {
  if (fd_ >= 0) ::close(fd_);
}

void Spool::spill(Block& block) {
  if (fd_ < 0) fd_ = openUnnamed();
  std::string_view bytes = block.text.view();
  block.extents.push_back({fileBytes_, bytes.size()});
  while (!bytes.empty()) {
    const ssize_t written = ::pwrite(fd_, bytes.data(), bytes.size(), static_cast<off_t>(fileBytes_));
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) refuse("cannot be written");
    bytes.remove_prefix(static_cast<std::size_t>(written));
    fileBytes_ += static_cast<std::uint64_t>(written);
  }
  block.text.clear();
}

void Spool::copyOut(const Block& block, Output& out) const {
  const auto chunk = std::make_unique_for_overwrite<char[]>(kCopyBytes);
  for (Extent extent : block.extents) {
    while (extent.bytes > 0) {
      const ssize_t count = ::pread(fd_, chunk.get(), std::min<std::uint64_t>(extent.bytes, kCopyBytes),
                                    static_cast<off_t>(extent.offset));
      if (count < 0 && errno == EINTR) continue;
      if (count <= 0) refuse("cannot be read");
      out.pass({chunk.get(), static_cast<std::size_t>(count)});
      extent.offset += static_cast<std::uint64_t>(count);
      extent.bytes -= static_cast<std::uint64_t>(count);
    }
  }
}

void Spool::deliver(Output& out) {
  bool first = true;
  for (const Block& block : blocks_) {
    if (block.text.size() == 0 && block.extents.empty()) continue;
    if (!std::exchange(first, false)) out.put('\n');
    copyOut(block, out);
    out.pass(block.text.view());
  }
}

}  // namespace veksys
