#include "blocks.h"

#include <unistd.h>
#include <veksys/diag/rc.h>
#include <veksys/diag/trace_scope.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "functions.h"
#include "stanza.h"

namespace demo {
namespace {

std::uint64_t countLines(std::string_view text) noexcept {
  return static_cast<std::uint64_t>(std::count(text.begin(), text.end(), '\n'));
}

// The length of the first line with its line end; 0 when the end is not there yet.
std::size_t lineLength(std::string_view text) noexcept {
  const std::size_t end = text.find('\n');
  return end == std::string_view::npos ? 0 : end + 1;
}

}  // namespace

// Makes room and reads once. At the end of the file it sets atEnd_.
SqlzZrc BlockReader::refill() {
  std::memmove(buffer_.data(), buffer_.data() + begin_, end_ - begin_);
  end_ -= begin_;
  begin_ = 0;
  ssize_t count;
  do count = ::read(descriptor_, buffer_.data() + end_, buffer_.size() - end_);
  while (count < 0 && errno == EINTR);
  if (count < 0) return sqloMapUnexpectedFileSystemErrorToZRC(errno);
  atEnd_ = count == 0;
  end_ += static_cast<std::size_t>(count);
  bytesRead_ += static_cast<std::uint64_t>(count);
  return 0;
}

// The length of a block that is complete, 0 when more has to be read. Goes on where it stopped the last time.
std::size_t BlockReader::blockLength() noexcept {
  while (const std::size_t length = lineLength(unread().substr(scanned_))) {
    const bool blank = isBlank(unread().substr(scanned_, length));
    scanned_ += length;
    if (blank && scanned_ >= kBlockTarget) return scanned_;
  }
  return 0;
}

void BlockReader::take(std::size_t length, bool cut, Block* out) noexcept {
  *out = {unread().substr(0, length), line_, cut};
  const std::string_view lastLine = out->text.substr(out->text.rfind('\n') + 1);
  line_ += countLines(out->text) + (!cut && !lastLine.empty() ? 1U : 0U);
  begin_ += length;
  scanned_ = 0;
  passOver_ = cut;
  lineHasText_ = !isBlank(lastLine);
}

// Passes over lines up to a blank one, however long they are.
SqlzZrc BlockReader::passOverStanza() {
  while (passOver_) {
    while (begin_ < end_ && passOver_) {
      const char c = buffer_[begin_++];
      line_ += c == '\n' ? 1U : 0U;
      if (c == '\n') passOver_ = lineHasText_;
      lineHasText_ = c != '\n' && (lineHasText_ || !isBlank({&c, 1}));
    }
    if (!passOver_ || atEnd_) break;
    if (const SqlzZrc code = refill(); code != 0) return code;
  }
  passOver_ = false;
  return 0;
}

SqlzZrc BlockReader::readBlock(Block* out) {
  SqltTraceScope<FID_readBlock> trace;
  if (const SqlzZrc code = passOverStanza(); code != 0) return trace.exit(code);
  for (;;) {
    const std::size_t whole = blockLength();
    const bool full = unread().size() == buffer_.size();
    if (whole == 0 && !full && !atEnd_) {
      if (const SqlzZrc code = refill(); code != 0) return trace.exit(code);
      continue;
    }
    const bool cut = whole == 0 && full;
    take(whole != 0 ? whole : unread().size(), cut, out);
    trace.data(1, out->firstLine, out->text.size(), cut);
    return trace.exit(SqlzZrc{0});
  }
}

}  // namespace demo
