#include "log_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "failure.h"

namespace veksys {
namespace {

constexpr std::size_t kWindowBytes = 1U << 20;
constexpr std::size_t kLook = LOG_RECORD_MOST + LOG_HEAD_MOST + 4;  // a record and the first line of the next
constexpr std::size_t kLead = 16;
constexpr std::uint64_t kNear = 2 * LOG_RECORD_MOST;  // how far an offset that fits is preferred over one that does not
constexpr std::uint64_t kNowhere = ~0ULL;
constexpr std::string_view kUnfinished = "\r\nThe record above is incomplete: ";  // of whoever could not cut it off

std::size_t readAt(int fd, char* to, std::size_t bytes, std::uint64_t position, const std::string& path) {
  std::size_t done = 0;
  while (done < bytes) {
    const ssize_t count = ::pread(fd, to + done, bytes - done, static_cast<off_t>(position + done));
    if (count == 0) break;
    if (count > 0)
      done += static_cast<std::size_t>(count);
    else if (errno != EINTR)
      sayNo("\"" + path + "\" cannot be read: " + std::strerror(errno) + ".");
  }
  return done;
}

bool isLineEnd(char c) noexcept { return c == '\r' || c == '\n'; }

// The first line start in `bytes` at or behind `from`; the beginning counts as none.
std::size_t lineStart(std::string_view bytes, std::size_t from) noexcept {
  if (from >= bytes.size()) return std::string_view::npos;
  const auto* found = static_cast<const char*>(std::memchr(bytes.data() + from, '\n', bytes.size() - from));
  return found == nullptr ? std::string_view::npos : static_cast<std::size_t>(found - bytes.data()) + 1;
}

}  // namespace

void LogFaults::add(const LogFaults& other) noexcept {
  if (moves == 0) firstMove = other.firstMove;
  halves += other.halves;
  places += other.places;
  damagedBytes += other.damagedBytes;
  moves += other.moves;
}

// ---- the file ---------------------------------------------------------------------------------------------------

LogFile::LogFile(const std::string& path) : path_(path), fd_(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)) {
  if (fd_ < 0) sayNo("\"" + path + "\" cannot be read: " + std::strerror(errno) + ".");
  struct stat status;
  if (::fstat(fd_, &status) != 0 || !S_ISREG(status.st_mode)) {
    ::close(fd_);
    sayNo("\"" + path + "\" is no file; a log is read from files and directories.");
  }
  device_ = status.st_dev;
  inode_ = status.st_ino;
  size_ = static_cast<std::uint64_t>(status.st_size);
  window_ = std::make_unique_for_overwrite<char[]>(kWindowBytes);
}

LogFile::~LogFile() { ::close(fd_); }

void LogFile::refresh() {
  struct stat status;
  if (::fstat(fd_, &status) != 0) return;
  size_ = static_cast<std::uint64_t>(status.st_size);
  held_ = 0;  // what was read may have been cut off and written anew
}

bool LogFile::isCurrent() const noexcept {
  struct stat status;
  return ::stat(path_.c_str(), &status) == 0 && status.st_dev == device_ && status.st_ino == inode_;
}

// A file that became shorter meanwhile ends where reading ends.
std::string_view LogFile::moveTo(std::uint64_t position, std::size_t wanted) {
  if (position >= size_) return {};
  const std::uint64_t left = size_ - position;
  if (position >= begin_ && position < begin_ + held_ && begin_ + held_ >= size_)
    return {window_.get() + (position - begin_), static_cast<std::size_t>(size_ - position)};
  const auto fill = static_cast<std::size_t>(std::min<std::uint64_t>(kWindowBytes, left));
  begin_ = position;
  held_ = readAt(fd_, window_.get(), fill, position, path_);
  if (held_ < std::min<std::uint64_t>(wanted, left)) size_ = begin_ + held_;
  return {window_.get(), held_};
}

// ---- the reader -------------------------------------------------------------------------------------------------

// Records begin with CR LF; a hand may have added or taken line ends.
std::uint64_t LogReader::skipLead(std::uint64_t position, std::size_t look) {
  const std::string_view bytes = file_->bytes(position, look);
  std::size_t lead = 0;
  while (lead < bytes.size() && isLineEnd(bytes[lead])) ++lead;
  return position + lead;
}

// The first line behind a record is looked at twice: to see that the record ends there, and as the next one.
bool LogReader::headAt(std::uint64_t position, LogHead* head) {
  const std::string_view bytes = file_->bytes(position, LOG_HEAD_MOST);
  const bool known = position == seenAt_ && bytes.data() == seen_.stamp.data();
  if (known) *head = seen_;
  return known || parseLogHead(bytes, head);
}

// What stands where a record ends.
LogReader::Edge LogReader::edgeAt(std::uint64_t end) {
  if (end > file_->size()) return Edge::kBeyond;
  const std::uint64_t start = skipLead(end, kLead + LOG_HEAD_MOST);
  if (start >= file_->size()) return Edge::kEnd;
  if (start == end || !headAt(start, &seen_)) return Edge::kNothing;
  seenAt_ = start;
  return Edge::kRecord;
}

void LogReader::give(LogPiece::Kind kind, std::uint64_t start, std::uint64_t end, LogPiece* piece) {
  const std::uint64_t size = end - start;
  piece->kind = kind;
  piece->position = start;
  piece->size = size;
  piece->bytes = file_->bytes(start, static_cast<std::size_t>(std::min<std::uint64_t>(size, LOG_RECORD_MOST)));
  piece->bytes = piece->bytes.substr(0, static_cast<std::size_t>(std::min<std::uint64_t>(size, LOG_RECORD_MOST)));
  position_ = end;
}

bool LogReader::next(LogPiece* piece) {
  const std::uint64_t start = skipLead(position_, kLook);
  if (start >= file_->size()) return false;
  piece->scanned = scanned_;
  if (!headAt(start, &piece->head)) return takeBroken(start, false, piece);
  return takeRecord(start, piece);
}

bool LogReader::takeRecord(std::uint64_t start, LogPiece* piece) {
  const std::uint64_t end = start + piece->head.length;
  const Edge edge = edgeAt(end);
  if (edge == Edge::kBeyond && mayGrow(start)) return false;
  if (edge == Edge::kBeyond || (edge == Edge::kNothing && !isWholeBeforeDamage(start, end)))
    return takeBroken(start, true, piece);
  if (file_->bytes(start, LOG_HEAD_MOST).data() != piece->head.stamp.data()) headAt(start, &piece->head);
  if (!fits(piece->head, start)) {
    moved_ = start - piece->head.offset;
    if (faults_.moves++ == 0) faults_.firstMove = start;
    piece->scanned = true;
  }
  scanned_ = false;
  give(LogPiece::Kind::kWhole, start, end, piece);
  return true;
}

// Whether the rest of a record at the end of the file is still to come: what it holds is not looked at before.
bool LogReader::mayGrow(std::uint64_t start) {
  return growing_ && file_->bytes(start, LOG_RECORD_MOST).find(kUnfinished) == std::string_view::npos;
}

// What follows is no record: it is damaged, unless the length of this one is. A line ends where the record does then,
// and no other record begins inside.
bool LogReader::isWholeBeforeDamage(std::uint64_t start, std::uint64_t end) {
  const std::string_view last = file_->bytes(end - 1, 1);
  if (last.empty() || last[0] != '\n') return false;
  const std::uint64_t found = scanFrom(start);
  LogHead head;
  return found >= end || !headAt(found, &head) || !fits(head, found);
}

// No record ends where it says: the rest of a killed writer's, damage, or a file whose line ends were changed.
bool LogReader::takeBroken(std::uint64_t start, bool isRecord, LogPiece* piece) {
  const std::uint64_t found = scanFrom(start);
  const bool toEnd = found == kNowhere;
  if (toEnd && growing_) return false;
  const std::uint64_t end = toEnd ? file_->size() : found;
  scanned_ = !toEnd;
  give(isRecord ? LogPiece::Kind::kHalf : LogPiece::Kind::kDamaged, start, end, piece);
  if (isRecord) {
    headAt(start, &piece->head);  // its texts have moved when the window has
    ++faults_.halves;
  } else {
    ++faults_.places;
    faults_.damagedBytes += end - start;
  }
  return true;
}

// The next place behind `from` where a record seems to begin: one whose offset fits when there is one near, else the
// first.
std::uint64_t LogReader::scanFrom(std::uint64_t from) {
  std::uint64_t other = kNowhere;
  LogHead head;
  for (std::uint64_t at = from; at < file_->size();) {
    const std::string_view bytes = file_->bytes(at, kLook);
    if (bytes.empty()) break;
    const bool last = at + bytes.size() >= file_->size();
    std::size_t line = 0;
    while ((line = lineStart(bytes, line)) != std::string_view::npos) {
      if (!last && line + LOG_HEAD_MOST > bytes.size()) break;
      if (other != kNowhere && at + line > other + kNear) return other;
      if (!parseLogHead(bytes.substr(line), &head)) continue;
      if (fits(head, at + line)) return at + line;
      if (other == kNowhere) other = at + line;
    }
    if (last) break;
    at += line == std::string_view::npos ? bytes.size() - 1 : line - 1;
  }
  return other;
}

// ---- from the end -----------------------------------------------------------------------------------------------

namespace {

// Where a record begins for certain in the part of a file that begins at `from`: a first line that tells its own
// place, and no first line in front of it whose record would reach over it. The true record over any other place would
// be such a first line.
std::uint64_t certainStart(LogFile& file, std::uint64_t from, std::uint64_t until) {
  std::uint64_t covered = from + LOG_RECORD_MOST;  // a record may reach in from before
  LogHead head;
  std::uint64_t at = from;
  while (at < until) {
    const std::string_view bytes = file.bytes(at, kLook);
    std::size_t line = 0;
    while ((line = lineStart(bytes, line)) != std::string_view::npos && at + line < until) {
      if (!parseLogHead(bytes.substr(line), &head) || head.offset != at + line) continue;
      if (at + line >= covered) return at + line;
      covered = std::max(covered, at + line + head.length);
    }
    if (bytes.size() <= LOG_HEAD_MOST) break;
    at += bytes.size() - LOG_HEAD_MOST;
  }
  return kNowhere;
}

}  // namespace

std::uint64_t logStartBefore(LogFile& file, std::uint64_t bytes) {
  if (bytes >= file.size()) return 0;
  const std::uint64_t until = file.size() - bytes;
  for (std::uint64_t back = 4 * LOG_RECORD_MOST; back < until; back *= 4) {
    const std::uint64_t found = certainStart(file, until - back, until);
    if (found != kNowhere) return found;
  }
  return 0;
}

}  // namespace veksys
