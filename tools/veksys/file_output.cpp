#include "file_output.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "failure.h"

namespace veksys {
namespace {

int openForWriting(const std::string& path) {
  if (path == "-") return STDOUT_FILENO;
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) sayNo("\"" + path + "\" cannot be written: " + ::strerror(errno) + ".");
  return fd;
}

}  // namespace

FileOutput::FileOutput(const std::string& path) : fd_(openForWriting(path)), out_(fd_) {}

FileOutput::~FileOutput() {
  if (fd_ != STDOUT_FILENO) ::close(fd_);
}

void FileOutput::flush() {
  bytes_ += out_.size();
  out_.flush();
}

std::uint64_t FileOutput::finish() {
  flush();
  return bytes_;
}

}  // namespace veksys
