// Records of the diagnostic log: facts in, text out.
//
// What is here is pure: it takes no lock, allocates nothing and does no I/O (the message catalogue apart, which is read
// once per process by the first record that needs it), and may run in a process that is dying. Whatever the caller
// hands over is printed as far as it can be: a null pointer, a missing terminator or a size beyond the buffer never
// make it write or read past what it was told.
//
// Views may be empty: the field is not known then and its part of the record is left out.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "veksys/diag/log.h"
#include "veksys/types.h"

namespace vek {

inline constexpr std::size_t PD_RECORD_BYTES = 65'536;  // the record buffer, its terminator included
inline constexpr std::size_t PD_IDENTIFIER_COLUMNS = 25;
inline constexpr std::size_t PD_DUMP_IDENTIFIER_COLUMNS = 23;
inline constexpr std::size_t PD_RECORD_LEAD_BYTES = 2;    // the CR LF in front, that no identifier counts
inline constexpr std::size_t PD_TIME_STAMP_COLUMNS = 31;  // time, offset from UTC, a blank
inline constexpr char PD_TYPE_LETTER = 'I';
inline constexpr char PD_SEPARATOR_LETTER = 'H';

// The name printed for a level; "Unknown" for any other number.
std::string_view pdLevelName(std::uint32_t level) noexcept;

// ---- the header -------------------------------------------------------------------------------------------------

// What stands in the header lines. Control characters in texts are shown as '?', so that no field can begin a line.
struct PdRecordHeader {
  std::int64_t timeNs = 0;  // since 1970 UTC; printed as local time, to the millisecond
  std::uint32_t level = PD_LEVEL_INFO;
  std::string_view secondLevel;  // in parentheses behind the level

  std::uint32_t processId = 0;
  std::uint64_t threadId = 0;
  std::string_view processName;

  std::string_view instance;
  std::int32_t partition = 0;
  std::string_view database;

  bool hasHandle = false;  // APPHDL
  std::int32_t handlePartition = 0;
  std::int32_t handleIndex = 0;
  std::string_view applicationId;

  std::uint32_t unitOfWorkId = 0;  // 0: not known, for all three
  std::uint32_t activityId = 0;
  std::uint32_t tenantId = 0;

  std::string_view authorizationId;
  std::string_view hostName;

  bool hasEngineUnit = false;  // EDUID
  std::uint64_t engineUnitId = 0;
  std::string_view engineUnitName;

  EcfFunctionId functionId = 0;  // its component and function are shown by name, or by number when nobody named them
  std::uint32_t probe = 0;
};

// ---- the body ---------------------------------------------------------------------------------------------------

// How a return code is described; bits 0-3 of the logging flags.
enum class PdCodeKind : std::uint8_t {
  kNone = PD_LOG_RC_NONE,      // no RETCODE section
  kZrc = PD_LOG_RC_ZRC,        // pdZRCGetDescription
  kEcf = PD_LOG_RC_ECF,        // ECF=0x%X=%d
  kMarker = PD_LOG_RC_MARKER,  // MARKER=%d=<name> "<text>", from veksys/pd_markers.def
  kCa = PD_LOG_RC_CA,          // CA RC= %u, of the cluster caching facility
};

// The kind that the flags ask for; kNone for a value that stands for no kind.
PdCodeKind pdCodeKindOfFlags(std::uint64_t flags) noexcept;

// A function that was called and failed. Named by its identifier when that is not 0, else by texts: a function of the
// system is {"OS", "-", "open"}.
struct PdCalled {
  EcfFunctionId functionId = 0;
  std::string_view product;
  std::string_view component;
  std::string_view function;
};

// An error of the operating system. Its name and text are looked up.
struct PdOsError {
  enum class Line : std::uint8_t {
    kNone,      // there is none
    kOwn,       // OSERR   : ENOSPC (28) "No space left on device"
    kOfCalled,  // OSERR: ENOSPC (28), on the line of CALLED; on a line of its own when nothing was called
  };
  Line line = Line::kNone;
  int number = 0;
};

// What became of an object that was to be written to a dump file.
struct PdDumpedObject {
  bool dumped = false;
  std::int64_t offset = -1;        // of the object in the file; below 0: not known
  std::uint32_t writtenBytes = 0;  // that the dump takes in the file, with its header record
  std::string_view file;           // path, on the next line
  std::string_view object;         // its name, when it was not dumped
  std::string_view reason;         // why it was not
};

// A data item: type, size and pointer as the caller of the log passed them. Read while the record is formatted.
struct PdItem {
  std::uint32_t type = 0;
  std::uint32_t size = 0;
  const void* data = nullptr;
  bool isArgument = false;               // ARG instead of DATA; both are numbered from 1 on their own
  const PdDumpedObject* dump = nullptr;  // announced instead of printed
};

// A section of another label: "START   : New Diagnostic Log file". Labels have at most 8 characters.
struct PdSection {
  std::string_view label;
  std::string_view text;
};

struct CallStack;  // platform/callstack.h

// What stands below the header, in this order. Everything left as it is stays out of the record.
struct PdRecordBody {
  std::string_view message;
  const char* messageFormat = nullptr;       // a message to be formatted (printf), when `message` is empty
  std::va_list* messageArguments = nullptr;  // its arguments; used up
  bool hasMessageNumber = false;             // a message of the catalogue, when there is no other
  std::uint64_t messageNumber = 0;

  const PdCalled* called = nullptr;

  PdCodeKind codeKind = PdCodeKind::kNone;  // RETCODE
  std::int64_t code = 0;

  PdOsError osError;
  std::string_view impact;
  std::string_view object;

  const PdSection* sections = nullptr;  // event sections: START, STOP, CHANGE and the like
  std::size_t sectionCount = 0;

  std::string_view dumpFile;   // "Dump File: %s"
  std::string_view dumpError;  // "Dump with error: %s ( rc = 0x%x )"
  std::int32_t dumpCode = 0;

  const PdItem* items = nullptr;
  std::size_t itemCount = 0;
  bool itemsAnnounced = false;    // without items: "<Empty variable list>"
  std::string_view preformatted;  // "<preformatted>" and this text, in place of items

  std::string_view remark;  // lines of text in front of the items, as they stand
  std::string_view note;    // lines of text behind the items, as they stand

  const CallStack* callStack = nullptr;
  bool callStackLongLabel = false;  // "CALL STACK: " instead of "CALLSTCK: "
};

// ---- what is kept -----------------------------------------------------------------------------------------------

// A part of a record as text, kept because the next record is likely to have the same.
struct PdKeptText {
  std::size_t length = 0;  // 0: nothing is kept
  char text[248] = {};     // a longer one is not kept
};

// What a writer of many records keeps from one to the next, each part with what it was made of: it is used while that
// is the same, so that nothing has to be told when it changes. Of one record at a time: whoever guards the buffer
// guards this too. A part that was being made when a fault ended the record is not kept.
struct PdRecordMemory {
  std::int64_t second = 0;  // of the time stamp; the time zone of a process does not change
  PdKeptText stamp;

  std::uint32_t processId = 0;  // of the lines that tell process and instance
  std::uint64_t threadId = 0;
  std::int32_t partition = 0;
  std::string_view processName;  // in `names`
  std::string_view instance;
  char names[128] = {};
  PdKeptText place;

  std::int32_t zrc = 0;  // of RETCODE
  bool isWide = false;
  PdKeptText description;
};

// ---- writing ----------------------------------------------------------------------------------------------------

// What stands in the buffer.
struct PdRecordText {
  std::size_t length = 0;  // with the CR LF in front; no terminator counted
  bool isCut = false;      // the record was too long: its end says so
};

// Formats a record of the log into `buffer`: CR LF, header lines, body, each line ended by CR LF. The columns of the
// identifier are blank until pdStampIdentifier fills them.
//
//   buffer  `bytes` of it, at least 256; never passed, terminated
//   cut     a record that does not fit ends in a line that says after how many bytes it was cut
//   memory  of the records before, null for one that stands alone; the record is the same with it and without
PdRecordText pdFormatRecord(const PdRecordHeader& header, const PdRecordBody& body, char* buffer, std::size_t bytes,
                            PdRecordMemory* memory = nullptr) noexcept;

// The same for the record at the head of an object in a dump file: its identifier has 23 columns.
PdRecordText pdFormatDumpRecord(const PdRecordHeader& header, const PdRecordBody& body, char* buffer,
                                std::size_t bytes) noexcept;

// Puts the identifier into a formatted record that is about to be written at `fileOffset`: I<offset + 2>H<length - 2>,
// so that both describe the record without the CR LF in front. Cheap enough to run under the lock of the file.
//
//   length  as pdFormatRecord answered it
//
// May be repeated with another offset. Offsets of 10^16 and above leave the record as it is and answer false.
bool pdStampIdentifier(char* record, std::uint64_t fileOffset, std::size_t length) noexcept;

// The description of a code by itself, as it stands behind "RETCODE : ", CR LF included. Returns its characters.
//
//   buffer  `bytes` of it, at least 1; what does not fit is cut; terminated
std::size_t pdDescribeCode(PdCodeKind kind, std::int64_t code, char* buffer, std::size_t bytes) noexcept;

}  // namespace vek
