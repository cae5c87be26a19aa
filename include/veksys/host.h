// What the embedding server supplies.
//
// The library works without any of it: a plain program is no engine, has no application fields, belongs to the
// instance named by VEKINSTANCE (or "default"), partition 0, and logs at the default levels. A server installs one
// VekHost before it starts its threads; every member may be left null and then keeps that default.
#pragma once

#include <cstddef>
#include <cstdint>

#include "veksys/export.h"
#include "veksys/types.h"

struct sqlca;

// The engine unit (a thread of the engine with a number and a name of its own) that is calling.
struct VekEngineUnit {
  std::uint64_t number;  // 0: the unit has none
  char name[64];         // terminated
};

// Application fields of log records. A field that is not known stays 0 (or empty) with its flag clear.
struct VekApplication {
  bool hasHandle;
  std::int32_t handlePartition;
  std::int32_t handleIndex;
  char applicationId[65];
  char authorizationId[129];
  char hostName[256];
  char databaseName[9];
  std::uint32_t unitOfWorkId;
  std::uint32_t activityId;
  std::uint32_t tenantId;
};

// The configuration parameters that reach this library through its host. Read-mostly; the host may change a level in
// place at any time, texts only before other threads run.
struct VekInstanceControl {
  char instanceName[33];          // letters, digits, '_', '-', '.'; empty: VEKINSTANCE, else "default"
  std::int16_t partition;         // number of this partition
  std::int32_t DIAGLEVEL;         // records above this severity number are dropped; default 6 (none)
  std::int32_t NOTIFYLEVEL;       // notify level of the administration log, 0..4; default 3
  char DIAGPATH[512];             // empty: the default directory of the instance
  char ALT_DIAGPATH[512];         // empty: none
  char CF_DIAGPATH[512];          // empty: as DIAGPATH
  std::uint32_t DIAGSIZE;         // megabytes of rotating logs; 0: one file that grows
  std::uint32_t MEMBERS_ON_HOST;  // members of the instance that share this machine; 0 or 1: this one alone
};

// A function name of the host's own, for its function identifiers (ecfFunctionId of its component and number).
struct VekFunctionName {
  EcfFunctionId functionId;
  const char* name;  // terminated; copied into shared memory, so that other processes and dumps can print it
};

// What a server installs. Calls come from any thread, and must not throw.
struct VekHost {
  std::size_t size;  // sizeof(VekHost) of the caller: members past it keep their defaults
  void* context;     // handed back to every call below

  // Tells the engine unit of the calling thread. False: the thread is no engine unit. Called on every traced entry:
  // a thread-local read, no lock, no log, no trace.
  bool (*currentEngineUnit)(void* context, VekEngineUnit* out);

  // Its number alone, for the hot path; 0 when there is none. Left null, currentEngineUnit answers.
  std::uint64_t (*currentEngineUnitNumber)(void* context);

  // Fills the application fields for the calling thread. False: none are known.
  bool (*application)(void* context, VekApplication* out);

  // The instance control block, valid until the process ends, or null.
  const VekInstanceControl* (*instanceControl)(void* context);

  // Installation directory, terminated, valid until the process ends, or null.
  const char* (*installationPath)(void* context);

  // Writes the state of the current engine unit to its dump file. Called when an internal error (SQL code -901) is
  // folded into an application's record; `zrc` caused it.
  void (*dumpEngineUnit)(void* context, SqlzZrc zrc);

  // Workload display, called when bit 0x40000 of a component's trace word is on.
  void (*workloadDisplayEntry)(void* context, EcfFunctionId functionId);
  void (*workloadDisplayExit)(void* context, EcfFunctionId functionId);

  // Functions of the host's own, shown by name in traces and log records.
  const VekFunctionName* functionNames;
  std::size_t functionNameCount;

  // The process is about to stop because something is broken beyond repair (sqloPanic): `zrc` and `text` tell what, and
  // are logged already. Any latch may be held. When it returns, the process aborts.
  void (*panic)(void* context, SqlzZrc zrc, const char* text);
};

extern "C" {

// Installs the host. The record is copied; tables and strings it points to must stay valid until the process ends.
//
//   host     null puts the defaults back
//   Result   0, or SQLO_INV_PARM: `size` is not that of a known record, an instance name has other characters than
//            those accepted, or the process is attached to an instance of another name; nothing is changed then
//   Threads  call it before the threads that use the library start, and before the first call that is traced: that
//            attaches the process to the instance in force, for life
VEK_EXPORT SqlzZrc vekHostInstall(const VekHost* host) noexcept;

// The instance control block in force: the host's or the defaults. Never null.
VEK_EXPORT const VekInstanceControl* vekInstanceControl() noexcept;

// The instance name in force: the control block's, else VEKINSTANCE, else "default"; once the process is attached, the
// name of the instance it is attached to. Never null.
VEK_EXPORT const char* vekInstanceName() noexcept;

// Whether this process shares the region of its instance; attaches when it has not done so yet. The answer holds for
// the life of the process. Attaching waits up to two seconds for a process that keeps the region's lock.
//
//   Result   0: it does. Otherwise it works privately and shares nothing, because (SQLO_REGION_...)
//            VERSION the running instance has another layout version; OWNER the region belongs to another user or is
//            open to others; DAMAGED it is damaged and in use; BUSY its lock is kept by a stopped process; SLOTS 1,024
//            processes are in it; NO_SPACE the shared-memory file system is full; DENIED it cannot be opened;
//            NO_MEMORY nothing could be mapped at all
//   Threads  any
VEK_EXPORT SqlzZrc vekInstanceStatus() noexcept;

// The installation directory: the host's, else VEKPATH (either when it is an absolute path), else the directory above
// the one the library was loaded from.
VEK_EXPORT const char* vekInstallationPath() noexcept;

// Component and function names for an identifier.
//
//   Component name        e.g. "operating-system services"; "Unknown" for a component without a row. Never null.
//   Component short name  its prefix, e.g. "SQLO"; null for a component without a row.
//   Function name         of the library, of the host, or of another process of the instance that registered it; null
//                         when nobody named it.
// The texts stay valid until the process ends. Thread-safe.
VEK_EXPORT const char* ecfGetComponentName(EcfFunctionId id) noexcept;
VEK_EXPORT const char* ecfGetComponentShortName(EcfFunctionId id) noexcept;
VEK_EXPORT const char* ecfGetFunctionName(EcfFunctionId id) noexcept;

// The component number for a prefix or a name, case-insensitive; -1 when there is none. Of several components that
// share a prefix the lowest number is answered. Two components have a second prefix, which is found as well: SQLPR
// (0x10) and SQLUC (0xB0).
VEK_EXPORT std::int32_t ecfFindComponent(const char* name) noexcept;

}  // extern "C"
