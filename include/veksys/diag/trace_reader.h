// Reading a trace: the live one of an instance, also after all its writers have ended, or a dump file.
//
//   SqltTraceReader reader;
//   if (reader.openInstance() != 0) ...
//   SqltTraceRecord record;
//   while (reader.next(&record)) ...
//
// Records come in the order of their ticks across all threads. Everything read is checked before it is believed: a
// damaged byte costs the record it is in, and no content, however hostile, makes the reader fail otherwise. What is
// missing is told by gap records at the place where it is missing. Memory stays at one segment (at most 64 KiB) per
// thread that wrote at the same time, and 48 bytes per segment of the trace.
//
// A reader belongs to one thread at a time. Reading a live trace disturbs no writer; it sees the trace as it was when
// it was opened, less what has been overwritten meanwhile.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "veksys/export.h"
#include "veksys/types.h"

// What a record is, and what its `value` means.
enum class SqltRecordKind : std::uint8_t {
  kEntry = 1,  // value: correlator
  kExit = 2,   // value: return code
  kData = 3,
  kError = 4,        // value: return code, 0 when the point has none
  kMarker = 5,       // item 0: the text
  kEvent = 6,        // value: event
  kCorrelator = 7,   // value: correlator
  kTranslation = 8,  // value: the code found; item 0: the code it became
  kGap = 32,         // records are missing here
};

// Why records are missing at a gap.
enum class SqltGapReason : std::uint8_t {
  kOverwritten,  // their segment was used again
  kLost,         // never written: no free segment, or a signal handler inside another point
  kDamaged,      // bytes that are no record; gapBytes tells how many
  kUnfinished,   // a record was begun: its writer is at it now or has ended in the middle
  kUnreadable,   // a whole segment cannot be told apart any more, or was reused while it was read
};

// One data item of a record.
struct SqltTraceItem {
  std::uint32_t type;    // PD type
  std::uint32_t size;    // bytes the caller gave
  std::uint32_t stored;  // bytes that are here: fewer when the item was cut
  bool isNull;           // the caller's pointer was null
  const void* data;      // `stored` bytes, aligned to 8, valid until the next call
};

// The thread that wrote a record. Names are terminated, and empty where they are not known.
struct SqltTraceThread {
  std::uint64_t serial;  // unique in the instance; 0 in a gap that belongs to no known thread
  std::uint32_t processId;
  std::uint32_t threadId;
  std::int32_t partition;
  char processName[17];
  char threadName[17];
};

inline constexpr std::uint32_t SQLT_TRACE_ITEMS_MOST = 21;

// One record, or a gap. Filled by SqltTraceReader::next; what it points to is valid until the next call.
struct SqltTraceRecord {
  SqltRecordKind kind;
  SqltGapReason gapReason;   // of a gap
  std::uint64_t gapRecords;  // of a gap: how many records are missing, 0 when that is not known
  std::uint64_t gapBytes;    // of a gap
  std::uint64_t ticks;
  std::int64_t realtimeNs;  // since 1970 UTC
  EcfFunctionId functionId;
  std::uint32_t probe;
  std::int64_t value;
  SqltTraceThread thread;
  std::uint64_t number;   // of this record among all that its thread attempted in this trace, from 0
  std::uint32_t segment;  // where it stands in the ring
  std::uint32_t offset;
  std::uint32_t itemCount;
  SqltTraceItem items[SQLT_TRACE_ITEMS_MOST];
};

// Facts about a whole trace. Sizes are bytes, times nanoseconds since 1970 UTC.
struct SqltTraceInfo {
  char instance[41];
  bool fromFile;
  bool active;              // of a live trace: switched on
  std::uint64_t ringBytes;  // as created
  std::uint64_t segmentBytes;
  std::uint32_t segmentCount;
  std::uint32_t segmentsUsed;         // hold records now
  std::uint32_t segmentsOwned;        // belong to a thread now
  std::uint64_t overwrittenSegments;  // since creation or clearing
  std::uint64_t overwrittenRecords;
  std::uint64_t lostRecords;
  std::uint64_t ticksPerSecond;
  std::int64_t createdRealtimeNs;
  std::int64_t readRealtimeNs;  // when it was opened or dumped
};

// Reads one trace, record by record, in the order of time. Movable, not copyable.
class VEK_EXPORT SqltTraceReader {
 public:
  SqltTraceReader() noexcept;
  ~SqltTraceReader();
  SqltTraceReader(SqltTraceReader&&) noexcept;
  SqltTraceReader& operator=(SqltTraceReader&&) noexcept;

  // Opens the trace of the instance in force. 0, or
  //   SQLT_TRACE_NOT_CREATED   there is none
  //   SQLT_TRACE_NOT_A_TRACE   the object is no trace or of another layout version
  //   SQLT_TRACE_READ_FAILED   it cannot be read (permission, input or output error, no memory)
  SqlzZrc openInstance() noexcept;

  // Opens a dump file. The same codes; SQLT_TRACE_NOT_CREATED when the file does not exist, SQLO_INV_PARM for a null
  // or empty path.
  SqlzZrc openFile(const char* path) noexcept;

  // The next record, or false at the end (or when nothing is open).
  bool next(SqltTraceRecord* record) noexcept;

  // Starts over with what was found at opening.
  void rewind() noexcept;

  // What is known of the trace as a whole; null before opening.
  const SqltTraceInfo* info() const noexcept;

  // The name of a function: from the dump, else as ecfGetFunctionName answers; null when nobody named it. Valid as
  // long as the reader.
  const char* functionName(EcfFunctionId id) const noexcept;

  struct Implementation;

 private:
  std::unique_ptr<Implementation> implementation_;
};
