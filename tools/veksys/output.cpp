#include "output.h"

#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "failure.h"

namespace veksys {
namespace {

void writeAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = ::write(fd, bytes.data(), bytes.size());
    if (written >= 0) {
      bytes.remove_prefix(static_cast<std::size_t>(written));
    } else if (errno == EPIPE) {
      throw OutputClosed{};
    } else if (errno != EINTR) {
      sayNo(std::string("The output cannot be written: ") + std::strerror(errno) + ".");
    }
  }
}

}  // namespace

void Output::flush() {
  const std::string_view bytes = view();
  clear();
  writeAll(fd_, bytes);
}

void Output::pass(std::string_view bytes) {
  flush();
  writeAll(fd_, bytes);
}

void remark(std::string_view sentence) noexcept {
  const std::string line = "veksys: " + std::string(sentence) + "\n";
  const ssize_t ignored = ::write(STDERR_FILENO, line.data(), line.size());
  static_cast<void>(ignored);
}

bool takesColour(int fd) noexcept {
  const char* none = std::getenv("NO_COLOR");
  const char* terminal = std::getenv("TERM");
  if (none != nullptr && none[0] != '\0') return false;
  return isTerminal(fd) && terminal != nullptr && std::strcmp(terminal, "dumb") != 0;
}

bool isTerminal(int fd) noexcept { return ::isatty(fd) != 0; }

}  // namespace veksys
