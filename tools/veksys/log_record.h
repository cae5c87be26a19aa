// A record of the diagnostic log, taken apart.
//
// A record begins with its time stamp, the offset of local time from UTC, and its identifier: a letter, the record's
// byte offset in the file, a letter, its length. What stands behind the identifier may hold any bytes; nothing in it
// decides where the record ends.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

namespace veksys {

inline constexpr std::size_t LOG_RECORD_MOST = 65'536;  // bytes of a record: the logger's buffer
inline constexpr std::size_t LOG_HEAD_MOST = 160;       // no first line is longer
inline constexpr std::uint32_t LOG_LEVEL_MOST = 6;

// The first line.
struct LogHead {
  std::int64_t moment;         // nanoseconds since 1970 UTC
  std::int32_t zoneMinutes;    // local time ahead of UTC
  char type;                   // the letter of the identifier
  std::uint64_t offset;        // of the record in the file it was written to
  std::uint32_t length;        // of the record in bytes
  std::uint32_t level;         // 1 to 6; 0 for a name that is none of them
  std::string_view levelName;  // as it stands
  std::string_view secondLevel;
  std::string_view stamp;  // the time as it stands, without the zone
};

// Reads the first line at the beginning of `bytes`. False when there is none that the logger could have written; `head`
// is changed then all the same.
bool parseLogHead(std::string_view bytes, LogHead* head) noexcept;

// "Severe" ... "Event", "Unknown" for any other number.
std::string_view logLevelName(std::uint32_t level) noexcept;

// A time stamp as it stands in the log, alone: 2025-11-21-14.05.30.123000, with or without the offset from UTC behind
// it. Without one it is local time.
std::optional<std::int64_t> parseLogStamp(std::string_view typed);

// What a record tells, by name. The first ones stand in the lines of the header.
enum class LogField : std::uint8_t {
  kPid,
  kTid,
  kProcess,
  kInstance,
  kMember,
  kDatabase,
  kHandle,
  kApplication,
  kUnitOfWork,
  kActivity,
  kTenant,
  kUser,
  kHost,
  kEngineUnit,
  kEngineUnitName,
  kProduct,
  kComponent,
  kFunction,
  kProbe,
  kMessage,
  kCalled,
  kCode,
  kOsError,
  kImpact,
  kObject,
  kTime,
  kLevel,
  kType,
  kText,
};
inline constexpr std::size_t LOG_HEADER_FIELDS = static_cast<std::size_t>(LogField::kMessage);
inline constexpr std::size_t LOG_TEXT_FIELDS = static_cast<std::size_t>(LogField::kTime);

// A return code as a record shows it.
struct LogCode {
  enum class Kind : std::uint8_t { kNone, kReturnCode, kEcf, kMarker, kCa };
  Kind kind = Kind::kNone;
  std::uint32_t value = 0;
};

// The fields of one record, found when they are first asked for. Texts point into the record.
class LogRecord {
 public:
  void take(std::string_view bytes, const LogHead& head) noexcept {
    bytes_ = bytes;
    head_ = head;
    state_ = State::kNothing;
  }

  std::string_view bytes() const noexcept { return bytes_; }
  const LogHead& head() const noexcept { return head_; }

  // A field's text; empty when the record does not have it. Texts of several lines keep their line ends.
  std::string_view text(LogField field) noexcept;
  std::optional<std::uint64_t> number(LogField field) noexcept;
  LogCode code() noexcept;

  // Everything behind the header lines.
  std::string_view body() noexcept;

 private:
  enum class State : std::uint8_t { kNothing, kInHeader, kHeader, kBody };
  void readHeader(LogField upTo) noexcept;
  void readBody() noexcept;
  bool readLine(std::string_view line) noexcept;
  void readFunction(std::string_view line) noexcept;
  void keepSection(std::string_view label, std::string_view text) noexcept;
  std::string_view& at(LogField field) noexcept { return texts_[static_cast<std::size_t>(field)]; }

  std::string_view bytes_;
  LogHead head_ = {};
  State state_ = State::kNothing;
  std::size_t passed_ = 0;  // fields below stand on lines that were read, or nowhere
  std::string_view body_;   // from the first line that was not read
  std::array<std::string_view, LOG_TEXT_FIELDS> texts_;
};

// Takes the first line off `text`, without its line end (CR LF or LF).
std::string_view takeLogLine(std::string_view& text) noexcept;

// Whether a line opens a section of the body: eight characters, a colon, a blank.
bool opensLogSection(std::string_view line) noexcept;

}  // namespace veksys
