// Standard output and standard error as the command uses them.
#pragma once

#include <string_view>

#include "text.h"

namespace veksys {

// Text on its way to a file descriptor. Lines collect in a large buffer; lineEnd() hands it over when it is full, and
// so does settle() behind text with line ends of its own.
class Output : public Text {
 public:
  explicit Output(int fd) noexcept : fd_(fd) {}
  void lineEnd() {
    put('\n');
    settle();
  }
  void settle() {
    if (size() >= kFlushBytes) flush();
  }

  // Writes out what has collected. Throws OutputClosed when the reader has gone, Failure for any other error.
  void flush();

  // Passes bytes on after what has collected, without copying them.
  void pass(std::string_view bytes);

 private:
  static constexpr std::size_t kFlushBytes = 256U << 10;
  int fd_;
};

// Writes a remark for the person on standard error: "veksys: <sentence>". Never fails.
void remark(std::string_view sentence) noexcept;

// True when a descriptor is a terminal that takes colours: NO_COLOR is not set and TERM is not "dumb".
bool takesColour(int fd) noexcept;

bool isTerminal(int fd) noexcept;

}  // namespace veksys
