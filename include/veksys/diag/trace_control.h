// Control of the trace facility: creating and deleting the shared trace, choosing what fires, dumping it.
//
// The shared trace is one ring per instance. Creating it starts it; which points fire is decided by the component
// words, which sqltSetTraceFlags writes for all processes of the instance at once, running ones included.
#pragma once

#include <cstdint>

#include "veksys/export.h"
#include "veksys/types.h"

inline constexpr std::uint64_t SQLT_TRACE_SIZE_DEFAULT = 0x200000;   // 2 MB
inline constexpr std::uint64_t SQLT_TRACE_SIZE_MINIMUM = 0x100000;   // smaller ones become the default
inline constexpr std::uint64_t SQLT_TRACE_SIZE_BEYOND = 0x40000001;  // this and larger ones become the default

// Option word of the trace settings record.
inline constexpr std::uint32_t SQLT_OPTION_COMPONENTS = 0x4;         // the component bitmap is used
inline constexpr std::uint32_t SQLT_OPTION_COMPONENTS_TOO = 0x2000;  // so it is with this bit
inline constexpr std::uint32_t SQLT_OPTION_CLI_DETAIL = 0x40000;     // client interface: adds 0x80000
inline constexpr std::uint32_t SQLT_OPTION_ALL = 0x80000;            // every component: adds 0x100000
inline constexpr std::uint32_t SQLT_OPTION_CLI_FIRST = 0x100000;     // client interface: adds 0x400000
inline constexpr std::uint32_t SQLT_OPTION_CLI_SECOND = 0x200000;    // client interface: adds 0x800000
inline constexpr std::uint32_t SQLT_OPTION_CLI_SELECT = 0x2000000;   // client interface: adds 0x1000000
inline constexpr std::uint32_t SQLT_OPTION_CLI_OTHER = 0x8000000;    // client interface: else adds 0x2000000

// Selection byte: the mask bytes are used for the components of the bitmap.
inline constexpr std::uint8_t SQLT_SELECT_MASK_BYTES = 0x8;

// Bits of the first mask byte for the kinds of points; the bits of the others belong to components' own options.
inline constexpr std::uint8_t SQLT_MASK_ENTRY = 0x02;
inline constexpr std::uint8_t SQLT_MASK_EXIT = 0x04;
inline constexpr std::uint8_t SQLT_MASK_DATA = 0x08;
inline constexpr std::uint8_t SQLT_MASK_ERROR = 0x10;

// Bit of the second mask byte for the performance record at exit.
inline constexpr std::uint8_t SQLT_MASK_PERFORMANCE = 0x01;

// The trace settings record. Bit n % 8 of byte n / 8 of the bitmap stands for component n.
struct SqltTraceSettings {
  std::uint32_t options;
  std::uint8_t selection;
  std::uint8_t components[32];
  std::uint8_t mask[3];
};

// Where the shared trace of an instance lives.
struct SqltSharedIPCInfo {
  char instance[40];
  char path[256];       // the shared object; empty when this process works privately
  std::uint64_t bytes;  // its ring's size; 0 while there is none
};

extern "C" {

// Creates the shared trace and switches it on. A size below SQLT_TRACE_SIZE_MINIMUM or at least SQLT_TRACE_SIZE_BEYOND
// becomes the default size; any other is rounded down to a power of two.
//
//   Result   0
//            SQLT_TRACE_ALREADY_CREATED: there is one; it is left as it is (one whose shared object has been removed or
//            is of another layout is replaced)
//            SQLT_TRACE_NO_SPACE: no room in the shared-memory file system; SQLT_TRACE_CREATE_FAILED: any other reason
//            SQLT_TRACE_SKIPPED: VEK_SKIP_TRACE is set for this process; SQLO_REGION_BUSY: another process keeps the
//            region's lock
//            a code of the instance region when this process cannot attach at all
//   Threads  any; one creator at a time in the instance
VEK_EXPORT SqlzZrc sqltTraceFacilityCreate(std::uint64_t bytes) noexcept;

// Switches tracing off and removes the shared trace with all its records. 0, SQLT_TRACE_NOT_CREATED when there is none,
// SQLO_REGION_BUSY when another process keeps the region's lock, or the code of a process that is not attached
// (SQLT_TRACE_SKIPPED, SQLT_TRACE_CREATE_FAILED, SQLO_REGION_NO_MEMORY).
// The memory goes back to the system at once, but for the segments that threads hold at that moment.
VEK_EXPORT SqlzZrc sqltTraceFacilityDelete() noexcept;

// The same for the client interface, which shares the facility: creating makes it unless it is there, deleting
// removes it only when the client interface made it. Both answer 0 when there was nothing to do, else as the two above.
VEK_EXPORT SqlzZrc sqltTraceFacilityCLICreate(std::uint64_t bytes) noexcept;
VEK_EXPORT SqlzZrc sqltTraceFacilityCLIDelete() noexcept;

// Attaches this process. Upper half of the result: 1. Lower half: 1 when attaching succeeded, else 0.
VEK_EXPORT std::uint64_t sqltinit() noexcept;

// The default size: VEKTRC_DEF_BUFFSIZE when it is set to a size within the limits above, else 2 MB.
VEK_EXPORT std::uint64_t sqltGetDefTrcBuffSize() noexcept;

// The size of the shared trace in bytes, 0 when there is none.
VEK_EXPORT std::uint64_t sqltInquireTraceBufferSize() noexcept;

// Writes 0: there is no auxiliary buffer. SQLO_INV_PARM for a null pointer.
VEK_EXPORT SqlzZrc sqltTrcAuxBufferSize(std::uint64_t* bytesOut) noexcept;

// Tells where the shared trace lives. SQLO_INV_PARM for a null pointer, else 0 or the code of a
// process that is not attached (as above); `out` is written with 0 only.
VEK_EXPORT SqlzZrc sqltTrcSharedIPCInfo(SqltSharedIPCInfo* out) noexcept;

// Writes the trace to a new file, which replaces `target` when it is complete. Tracing goes on meanwhile.
//
//   Result   0; SQLO_INV_PARM: null or empty path; SQLT_TRACE_NOT_CREATED: there is no trace; SQLT_TRACE_SKIPPED,
//            SQLT_TRACE_CREATE_FAILED, SQLO_REGION_NO_MEMORY: this process is not or cannot be attached;
//            SQLT_TRACE_DUMP_FAILED: the file cannot be written: an earlier file of that name stays as it was, unless
//            everything was written and only the flush of its directory failed
VEK_EXPORT SqlzZrc sqlt_dump_trace(const char* target) noexcept;

// Writes the component words as the settings record says and switches an existing trace on again.
// 0, SQLO_INV_PARM for a null pointer, or the code of a process that is not attached (as above).
VEK_EXPORT SqlzZrc sqltSetTraceFlags(const SqltTraceSettings* settings) noexcept;

// Puts every component word back to the event word's bit 0x40000.
VEK_EXPORT void sqltClearTraceFlags() noexcept;

// Workload display on or off: bit 0x40000 of every component word and of the event word.
VEK_EXPORT void sqltSetWorkloadDisplay(bool on) noexcept;

// The partition number and process id that this process's records carry by default (that of the instance
// control block, and its own). In force for the
// calling thread's next record and for other threads from their next segment on.
VEK_EXPORT void sqltSetTrcDftNodeNum(std::int16_t partition) noexcept;
VEK_EXPORT void sqltspid(std::uint32_t processId) noexcept;

// Forgets all records; tracing goes on. Does nothing without a trace, and when another process keeps the region's lock
// for two seconds.
VEK_EXPORT void pdtClearBuffer() noexcept;

// Switches tracing off in the instance; the records stay readable. sqltSetTraceFlags switches it on again.
VEK_EXPORT void pdtDisable() noexcept;

// The global trace record: the head of the shared trace as this process maps it, null while it is not attached to one.
VEK_EXPORT const void* pdGetGTRecPtr() noexcept;

// What fires: sqltTraceActive tells whether a shared trace exists and is switched on.
VEK_EXPORT bool sqltTraceActive() noexcept;

}  // extern "C"
