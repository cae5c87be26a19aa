// A file of the diagnostic log, read record by record.
//
// A record's own offset and length say where it ends; what stands in between is not looked at, so that no text in a
// record can pass for another record. Only where they do not fit the file (it was cut, joined from several, or a record
// is damaged) the reader scans for the next first line, and marks what it found so.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "log_record.h"

namespace veksys {

// A file seen through a window that moves with the reader.
class LogFile {
 public:
  explicit LogFile(const std::string& path);  // throws Failure when it cannot be read
  ~LogFile();
  LogFile(const LogFile&) = delete;
  LogFile& operator=(const LogFile&) = delete;

  const std::string& path() const noexcept { return path_; }
  std::uint64_t size() const noexcept { return size_; }

  // Looks how large the file is now.
  void refresh();

  // Whether the path still names this file.
  bool isCurrent() const noexcept;

  // The bytes from `position` on: at least `wanted` unless the file ends before. Valid until the next call.
  std::string_view bytes(std::uint64_t position, std::size_t wanted) {
    if (position >= begin_ && position + wanted <= begin_ + held_) [[likely]]
      return {window_.get() + (position - begin_), static_cast<std::size_t>(begin_ + held_ - position)};
    return moveTo(position, wanted);
  }

 private:
  std::string_view moveTo(std::uint64_t position, std::size_t wanted);

  std::string path_;
  int fd_ = -1;
  std::uint64_t size_ = 0;
  std::uint64_t device_ = 0;
  std::uint64_t inode_ = 0;
  std::unique_ptr<char[]> window_;
  std::uint64_t begin_ = 0;
  std::size_t held_ = 0;
};

// A stretch of a file.
struct LogPiece {
  enum class Kind : std::uint8_t {
    kWhole,    // a record
    kHalf,     // the beginning of a record; the rest is missing
    kDamaged,  // bytes that belong to no record
  };
  Kind kind = Kind::kWhole;
  bool scanned = false;  // found by scanning, or at another offset than it tells
  std::uint64_t position = 0;
  std::uint64_t size = 0;
  std::string_view bytes;  // all of it; of damage, the first LOG_RECORD_MOST. Valid until the reader moves on
  LogHead head = {};       // of a record or a half
};

// What a reader met besides whole records.
struct LogFaults {
  std::uint64_t halves = 0;
  std::uint64_t places = 0;  // that are damaged
  std::uint64_t damagedBytes = 0;
  std::uint64_t moves = 0;  // from where on the offsets are those of another file or place
  std::uint64_t firstMove = 0;
  bool any() const noexcept { return halves + places + moves != 0; }
  void add(const LogFaults& other) noexcept;
};

class LogReader {
 public:
  // Reads from `position`, where a record begins. With `growing` the last record is held back until it is complete.
  LogReader(LogFile& file, std::uint64_t position, bool growing) noexcept
      : file_(&file), position_(position), growing_(growing) {}

  // False at the end of the file.
  bool next(LogPiece* piece);

  // The file will not grow any further: what was held back is a half.
  void finish() noexcept { growing_ = false; }

  std::uint64_t position() const noexcept { return position_; }
  const LogFaults& faults() const noexcept { return faults_; }

 private:
  enum class Edge : std::uint8_t { kEnd, kRecord, kNothing, kBeyond };

  std::uint64_t skipLead(std::uint64_t position, std::size_t look);
  bool headAt(std::uint64_t position, LogHead* head);
  Edge edgeAt(std::uint64_t end);
  bool takeRecord(std::uint64_t start, LogPiece* piece);
  bool mayGrow(std::uint64_t start);
  bool isWholeBeforeDamage(std::uint64_t start, std::uint64_t end);
  bool takeBroken(std::uint64_t start, bool isRecord, LogPiece* piece);
  std::uint64_t scanFrom(std::uint64_t from);
  bool fits(const LogHead& head, std::uint64_t position) const noexcept { return head.offset + moved_ == position; }
  void give(LogPiece::Kind kind, std::uint64_t start, std::uint64_t end, LogPiece* piece);

  LogFile* file_;
  LogHead seen_ = {};  // at seenAt_
  std::uint64_t seenAt_ = ~0ULL;
  std::uint64_t position_;   // behind what was given out
  std::uint64_t moved_ = 0;  // what to add to the offsets told, modulo 2^64
  bool growing_;
  bool scanned_ = false;  // the next record was found by scanning
  LogFaults faults_;
};

// The position of a record near the end of the file from which on at least `bytes` are left, or 0: a place where a
// record begins for certain, whatever texts hold.
std::uint64_t logStartBefore(LogFile& file, std::uint64_t bytes);

}  // namespace veksys
