// The diagnostic log: one readable record per event, appended to vekdiag.log in the diagnostic directory.
//
//   pdLog(PD_LOG_RC_ZRC, FID, SQLO_NOMEM, 10, PD_LEVEL_ERROR, 1, PD_TYPE_UINT, 4, &pages);
//
// Common rules
//   - A record that answered 0 is in the file, whole and once. Its identifier holds the offset and the length of its
//     bytes. Whatever another process does meanwhile, be it killed in the middle of its own record, changes neither.
//   - No call changes errno, allocates memory or fails its caller: what goes wrong is answered as a code.
//   - Any thread, any process, any time, with these exceptions: not while a set latch or a pool latch is held, and a
//     call from inside a log call (a formatter that logs, a signal handler that interrupted the logger) is dropped;
//     the next record says how many were.
//   - Result of every call that writes a record:
//       0                    it is in the log
//       SQLT_NOLOG           its level is above the level of the log: nothing was written
//       SQLT_DIAGERR_LOGERR  it could not be written. Why is said once on standard error, and again by the first
//                            record that can be written, together with the number of those that were lost
//       SQLO_INV_PARM        a record that is described wrongly (PdLogCall of another size, null where a pointer must
//                            be)
//   - A call takes up to 32 KB of stack in a process that has not written before, or whose files are in trouble; after
//     that 8 KB, and 24 KB where the event goes to the notification log. Formatters and call-backs of the host come on
//     top of it. One above the level of the log takes none.
//   - A data item is three arguments: its PD type (32 bits), its size in bytes (32 bits) and a pointer to its value.
//     Those arguments are not checked by the compiler; veksys/diag/log_items.h is the form that is. Values are read
//     during the call. A type with PD_ITEM_ARGUMENT added is printed as an argument of the function.
//   - A pointer that leads nowhere does not harm the program: the record then tells of the trap. A fault handler that
//     the program installs after its first record is noticed by one record in 64 at the latest (docs/log.md); until
//     then such a fault is its handler's.
//   - Texts may hold any bytes: what could be taken for the beginning of another record is not believed by readers,
//     who follow the identifiers.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>

#include "veksys/diag/rc.h"
#include "veksys/diag/trace.h"
#include "veksys/export.h"
#include "veksys/host.h"
#include "veksys/pd_types.h"
#include "veksys/types.h"

// Severity of a record. Numbers are compared as they stand: a record is written when its number is not above the level
// of the log, whatever the word behind it. Other numbers are printed as "Unknown".
enum PdLevel : std::uint32_t {
  PD_LEVEL_SEVERE = 1,
  PD_LEVEL_ERROR = 2,
  PD_LEVEL_WARNING = 3,
  PD_LEVEL_INFO = 4,
  PD_LEVEL_CRITICAL = 5,
  PD_LEVEL_EVENT = 6,
};

// The flags of a log call.
inline constexpr std::uint64_t PD_LOG_RC_KIND_MASK = 0xF;  // what the return code is:
inline constexpr std::uint64_t PD_LOG_RC_NONE = 0;         // not printed
inline constexpr std::uint64_t PD_LOG_RC_ZRC = 1;          // a return code; 0 is not printed
inline constexpr std::uint64_t PD_LOG_RC_ECF = 2;          // an ECF code; 0 is not printed
inline constexpr std::uint64_t PD_LOG_RC_MARKER =
    3;                                            // the number of a marker, with name and text of the table of markers
inline constexpr std::uint64_t PD_LOG_RC_CA = 4;  // a code of the cluster caching facility
inline constexpr std::uint64_t PD_LOG_NOTIFY_MASK = 0xF0;          // notify level 1..4: the event also goes to the
inline constexpr unsigned PD_LOG_NOTIFY_SHIFT = 4;                 // administration notification log
inline constexpr std::uint64_t PD_LOG_CALL_STACK = 0x1000;         // the record ends with the call stack
inline constexpr std::uint64_t PD_LOG_TRACE = 0x2000;              // the event is an error point of the trace as well
inline constexpr std::uint64_t PD_LOG_FACILITY_MASK = 0xFFFF0000;  // a secondary log (pdLogFacOpen); 0: the
inline constexpr unsigned PD_LOG_FACILITY_SHIFT = 16;              // diagnostic log

// The notify level `level` as flags.
constexpr std::uint64_t pdLogNotify(std::uint32_t level) noexcept {
  return (static_cast<std::uint64_t>(level) << PD_LOG_NOTIFY_SHIFT) & PD_LOG_NOTIFY_MASK;
}

// Added to the type of an item that is an argument of the function: printed as ARG instead of DATA.
inline constexpr std::uint32_t PD_ITEM_ARGUMENT = 0x80000000U;

// What an event record says of itself. Null texts are left out.
struct PdLogEvent {
  const char* action;  // opens a section of its own, at most eight characters: "START", "STOP", "CHANGE"; one that is a
                       // label of the record's own ("RETCODE") gets a blank in front and opens none
  const char* object;  // what it happened to; behind the action
  const char* impact;  // who will notice, e.g. "Unlikely", "Potential"
};

// An event on its way to a component event recorder.
struct PdRecorderEvent {
  void* recorder;            // null: the default recorder of the component of the function identifier
  std::uint64_t event;       // its number
  std::uint64_t qualifiers;  // of the component's choosing
};

// Everything that a record can be made of. The calls below fill one and hand it to pdLogCall; a member that is null
// or 0 is left out of the record.
struct PdLogCall {
  std::size_t size;  // sizeof(PdLogCall) of the caller
  std::uint64_t flags;
  EcfFunctionId functionId;
  std::uint32_t probe;
  std::int64_t returnCode;
  std::uint32_t level;
  EcfFunctionId calledFunctionId;        // who returned the code
  const char* calledSystemFunction;      // the same for a function of the system: "open"
  const char* message;                   // terminated
  const char* format;                    // a message to be formatted (printf) from `arguments`, when there is no other
  std::uint64_t messageNumber;           // of the message catalogue: SQL code |number|; used when there is no message
  bool hasOsError;                       // osError is printed, 0 too
  std::int32_t osError;                  // an errno value
  const PdLogEvent* event;               // for an event record
  const PdRecorderEvent* recorderEvent;  // also handed to an event recorder, whatever the level of the log
  bool itemsAnnounced;                   // the call has a list of items; an empty one is printed as such
  std::uint64_t itemCount;
  const PdtItem* items;      // used when there are no arguments, or they belong to the format
  std::va_list* arguments;   // of the format, else itemCount triples; or null
  const char* preformatted;  // a body that is formatted already, lines ending in CR LF; or null
  std::size_t preformattedBytes;
};

// A description that holds what all calls begin with, and nothing else.
inline PdLogCall pdLogDescribe(std::uint64_t flags, EcfFunctionId functionId, std::int64_t returnCode,
                               std::uint32_t probe, std::uint32_t level) noexcept {
  PdLogCall call = {};
  call.size = sizeof call;
  call.flags = flags;
  call.functionId = functionId;
  call.probe = probe;
  call.returnCode = returnCode;
  call.level = level;
  return call;
}

extern "C" {

// ---- the calls --------------------------------------------------------------------------------------------------
//
// All begin with: flags (above), the identifier of the calling function, the return code (a ZRC sign-extended), a
// probe that is unique within the function, and the level.

// A record with data items.
VEK_EXPORT SqlzZrc pdLog(std::uint64_t flags, EcfFunctionId functionId, std::int64_t returnCode, std::uint32_t probe,
                         std::uint32_t level, std::uint64_t itemCount, ...) noexcept;

// A record with a message from a format string.
VEK_EXPORT SqlzZrc pdLogPrintf(std::uint64_t flags, EcfFunctionId functionId, std::int64_t returnCode,
                               std::uint32_t probe, std::uint32_t level, const char* format, ...) noexcept
    __attribute__((format(printf, 6, 7)));

// A record of a code that a called function returned.
VEK_EXPORT SqlzZrc pdLogRC(std::uint64_t flags, EcfFunctionId functionId, std::int64_t returnCode, std::uint32_t probe,
                           std::uint32_t level, EcfFunctionId calledFunctionId, std::uint64_t itemCount, ...) noexcept;

// A record of an operating-system error (an errno value) that a function of the system returned: its name, "open", or
// null when none is to be named.
VEK_EXPORT SqlzZrc pdLogSysRC(std::uint64_t flags, EcfFunctionId functionId, std::int64_t returnCode,
                              std::uint32_t probe, std::uint32_t level, const char* calledSystemFunction,
                              std::int32_t osError, std::uint64_t itemCount, ...) noexcept;

// An event with data items, with a text, with a message of the catalogue.
VEK_EXPORT SqlzZrc pdLogEvent(std::uint64_t flags, EcfFunctionId functionId, std::int64_t returnCode,
                              std::uint32_t probe, std::uint32_t level, const PdLogEvent* event,
                              std::uint64_t itemCount, ...) noexcept;
VEK_EXPORT SqlzZrc pdLogEventString(std::uint64_t flags, EcfFunctionId functionId, std::int64_t returnCode,
                                    std::uint32_t probe, std::uint32_t level, const PdLogEvent* event,
                                    const char* text) noexcept;
VEK_EXPORT SqlzZrc pdLogEventWithMessage(std::uint64_t flags, EcfFunctionId functionId, std::int64_t returnCode,
                                         std::uint32_t probe, std::uint32_t level, const PdLogEvent* event,
                                         std::uint64_t messageNumber, std::uint64_t itemCount, ...) noexcept;

// The same records, handed to an event recorder as well. The recorder gets the event whatever the level of the log.
VEK_EXPORT SqlzZrc pdLogEvRecEx(std::uint64_t flags, EcfFunctionId functionId, std::int64_t returnCode,
                                std::uint32_t probe, std::uint32_t level, const PdRecorderEvent* event,
                                std::uint64_t itemCount, ...) noexcept;
VEK_EXPORT SqlzZrc pdLogRCEvRecEx(std::uint64_t flags, EcfFunctionId functionId, std::int64_t returnCode,
                                  std::uint32_t probe, std::uint32_t level, const PdRecorderEvent* event,
                                  EcfFunctionId calledFunctionId, std::uint64_t itemCount, ...) noexcept;
VEK_EXPORT SqlzZrc pdLogSysRCEvRecEx(std::uint64_t flags, EcfFunctionId functionId, std::int64_t returnCode,
                                     std::uint32_t probe, std::uint32_t level, const PdRecorderEvent* event,
                                     const char* calledSystemFunction, std::int32_t osError, std::uint64_t itemCount,
                                     ...) noexcept;
VEK_EXPORT SqlzZrc pdLogPrintfEvRecEx(std::uint64_t flags, EcfFunctionId functionId, std::int64_t returnCode,
                                      std::uint32_t probe, std::uint32_t level, const PdRecorderEvent* event,
                                      const char* format, ...) noexcept __attribute__((format(printf, 7, 8)));

// A record from its description: what all of the calls above come down to.
VEK_EXPORT SqlzZrc pdLogCall(const PdLogCall* call) noexcept;

// Writes an object into the dump file of the calling thread (<diagnostic directory><process>.<thread>.<partition>
// .dump.bin) and a record that says where it is.
//
//   label    names the object in the record; null for none
//   level    when it keeps the record out, the object is not dumped either: the event goes to the notification log and
//            the trace as its flags ask for, and the answer is SQLT_NOLOG
//   Result   also SQLT_DIAGERR_DUMPERR: the object could not be dumped, which the record says (with address, size and
//            reason)
VEK_EXPORT SqlzZrc pdLogDump(std::uint64_t flags, EcfFunctionId functionId, std::int64_t returnCode,
                             std::uint32_t probe, std::uint32_t level, const char* label, std::uint32_t size,
                             const void* data) noexcept;

// ---- levels -----------------------------------------------------------------------------------------------------

// Sets the level of the log for all processes of the instance that run, until it is taken back or the machine boots;
// the DIAGLEVEL of their hosts has no effect meanwhile.
//
//   level    0 and up: records above it are dropped; -1: each process's DIAGLEVEL is in force again
//   Result   0, SQLO_INV_PARM: below -1; a SQLO_REGION_ code: the level is set in this process alone
VEK_EXPORT SqlzZrc pdSetDiagLevel(std::int32_t level) noexcept;

// The level in force in this process.
VEK_EXPORT std::int32_t pdGetDiagLevel() noexcept;

// True when the instance's notify level (NOTIFYLEVEL) is at least the notify level in bits 4-7 of `flags`.
VEK_EXPORT bool sqltTestNotifyLevel(std::uint64_t flags) noexcept;

// ---- time stamps ------------------------------------------------------------------------------------------------

// Writes the time as records begin with it, without the offset from UTC: "2024-05-01-13.59.59.123000", local time.
//
//   utcOut   when given, the time is stored there instead, in nanoseconds since 1970 UTC, and nothing is written
//   Result   0; SQLO_INV_PARM: the buffer is null or holds less than 27 bytes, and is left as it is
//   Threads  any
VEK_EXPORT SqlzZrc pdGetTimeStamp(char* buffer, std::size_t size, std::int64_t* utcOut) noexcept;

// ---- the older interface ----------------------------------------------------------------------------------------
//
// Each call writes one record of the same layout and answers as those above.

// A return code; a text (terminated); bytes; bytes under a label in the dump file of the thread; an alert with the
// number that a network management station knows it by; and all of it in one.
VEK_EXPORT SqlzZrc sqlt_logerr_zrc(EcfFunctionId functionId, std::uint32_t probe, std::uint32_t level,
                                   SqlzZrc zrc) noexcept;
VEK_EXPORT SqlzZrc sqlt_logerr_string(EcfFunctionId functionId, std::uint32_t probe, std::uint32_t level,
                                      const char* text) noexcept;
VEK_EXPORT SqlzZrc sqlt_logerr_data(EcfFunctionId functionId, std::uint32_t probe, std::uint32_t level,
                                    std::uint32_t size, const void* data) noexcept;
VEK_EXPORT SqlzZrc sqlt_logerr_dump(EcfFunctionId functionId, std::uint32_t probe, std::uint32_t level,
                                    const char* label, std::uint32_t size, const void* data) noexcept;
VEK_EXPORT SqlzZrc sqlt_logerr_snmp(EcfFunctionId functionId, std::uint32_t probe, std::uint32_t level,
                                    std::uint32_t alert, const char* text) noexcept;
VEK_EXPORT SqlzZrc sqlt_logerr(EcfFunctionId functionId, std::uint32_t probe, std::uint32_t level, SqlzZrc zrc,
                               const char* text, std::uint32_t size, const void* data) noexcept;

// Writes the message of an SQL code with its tokens (terminated texts) to the administration notification log.
//
//   notifyLevel  1..4, compared with the instance's NOTIFYLEVEL
//   tokens       stand in the places of the message, in its order, those left over behind it; null ones are empty,
//                those beyond SQLZ_SQLCA_TOKEN_MAXIMUM are left out
//   Result       0; SQLT_NOLOG: above the notify level; SQLT_DIAGERR_LOGERR: could not be written;
//                SQLT_NOTIFY_LEVEL_RANGE: not 1..4; SQLO_INV_PARM: null where tokens are announced
VEK_EXPORT SqlzZrc sqlt_logadmin(EcfFunctionId functionId, std::uint32_t probe, std::uint32_t notifyLevel,
                                 std::int32_t sqlcode, std::uint32_t tokenCount, const char* const* tokens) noexcept;

// The same for what a communications area holds: its SQL code and its tokens. An area without an error or a warning
// (sqlcode 0) answers SQLT_NOLOG; null, and one that cannot be read, SQLO_INV_PARM.
VEK_EXPORT SqlzZrc sqlt_logadmin_api(EcfFunctionId functionId, std::uint32_t probe, std::uint32_t notifyLevel,
                                     const struct sqlca* area) noexcept;

// ---- the application fields of the header -----------------------------------------------------------------------

// Optional fields of the header, for pdLogSetExtraHeaderMask.
inline constexpr std::uint32_t PD_HEADER_DATABASE = 0x1;      // DB
inline constexpr std::uint32_t PD_HEADER_APPLICATION = 0x2;   // APPHDL, APPID
inline constexpr std::uint32_t PD_HEADER_WORK = 0x4;          // UOWID, ACTID
inline constexpr std::uint32_t PD_HEADER_TENANT = 0x8;        // TENANTID
inline constexpr std::uint32_t PD_HEADER_USER = 0x10;         // AUTHID, HOSTNAME
inline constexpr std::uint32_t PD_HEADER_ENGINE_UNIT = 0x20;  // EDUID, EDUNAME
inline constexpr std::uint32_t PD_HEADER_ALL = 0x3F;          // the default

// Call-backs that tell about the application a thread works for. They run before the logger takes its lock; a null
// member, like null as a whole, leaves those fields to the host (VekHost::application).
struct PdApplInfoFunctions {
  bool (*handle)(std::int32_t* partition, std::int32_t* index);                                   // false: not known
  bool (*work)(std::uint32_t* unitOfWorkId, std::uint32_t* activityId, std::uint32_t* tenantId);  // 0: not known
  bool (*authorization)(char* authorizationId, std::size_t bytes);
  bool (*hostName)(char* name, std::size_t bytes);
  bool (*databaseName)(char* name, std::size_t bytes);
};

// Chooses the optional fields of headers written by this process, PD_HEADER_... together.
VEK_EXPORT void pdLogSetExtraHeaderMask(std::uint32_t mask) noexcept;

// Registers the call-backs of this process; the record is copied. Null takes them away.
VEK_EXPORT void pdSetGetApplInfoFunctions(const PdApplInfoFunctions* functions) noexcept;

// Registers the call-back for the application identifier, which writes it terminated; false: not known.
VEK_EXPORT void sqltSetGetApplIdFunction(bool (*applicationId)(char* id, std::size_t bytes)) noexcept;

// ---- messages of the OS-services layer --------------------------------------------------------------------------

// A message of the OS-services layer on its way to the log.
struct PdOSSeMessage {
  EcfFunctionId functionId;
  std::uint32_t probe;
  std::uint32_t level;   // PdLevel
  std::int32_t ecfCode;  // 0: none
  std::int32_t osError;  // 0: none
  const char* text;      // terminated, or null
};

// Makes a record of a message. What sqltSyncOSSeLogFacility installs.
VEK_EXPORT void pdOSSeLoggingCallback(const PdOSSeMessage* message) noexcept;

// Installs the call-back in the OS-services layer; again does no harm. Result: 0, or SQLT_OSSE_LOG_FACILITY_FAILED: the
// layer has another call-back already.
VEK_EXPORT SqlzZrc sqltSyncOSSeLogFacility() noexcept;

// Has the OS-services layer hold back messages above a level (0 holds back all of them; PD_LEVEL_WARNING unless set).
// Result: 0, or SQLT_OSSE_LOG_SET_LEVEL_FAILED: above PD_LEVEL_EVENT.
VEK_EXPORT SqlzZrc sqltSetOSSeLogLevel(std::uint32_t level) noexcept;

// ---- facilities: secondary logs by name -------------------------------------------------------------------------

// Opens a secondary log, a file <name>.log in the diagnostic directory, with a level of its own. Opening a name that
// is open answers the same facility with the level it has; a name that was closed gets its number back and the new
// level. Calls write to it when their flags carry it (facility << PD_LOG_FACILITY_SHIFT).
//
//   name         1 to 64 letters, digits, '_', '-' or '.', not beginning with '.'; not "vekdiag", nor beginning with
//                "vekdiag."
//   facilityOut  1 and up, at most 65,535
//   Result       0; SQLO_INV_PARM: the name, or no place for the answer; SQLT_DIAGERR_LOGERR: no memory, or no
//                number for another one
VEK_EXPORT SqlzZrc pdLogFacOpen(const char* name, std::uint32_t level, std::uint32_t* facilityOut) noexcept;

// Closes a facility: calls that carry it answer SQLT_DIAGERR_LOGERR until its name is opened again. SQLO_INV_PARM: it
// is not open.
VEK_EXPORT SqlzZrc pdLogFacClose(std::uint32_t facility) noexcept;

// Changes the level of an open facility. SQLO_INV_PARM: it is not open.
VEK_EXPORT SqlzZrc pdLogFacSetLevel(std::uint32_t facility, std::uint32_t level) noexcept;

// Closes every facility of this process that is open.
VEK_EXPORT void pdCloseOpenedFacility() noexcept;

}  // extern "C"
