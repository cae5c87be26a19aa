// The instance's memory controller: keeps what all processes of the instance hold together within one upper bound.
//
// A component that holds much memory registers as a consumer, asks before it grows (requestMemory) and tells what it
// gives back (freeMemory). A request that would pass the bound makes the controller ask the other consumers, through
// the call-backs they registered, to release what they only keep as a cache; then the request is tried again.
//
// The controller counts, it allocates nothing. Its counters are shared by the processes of the instance; a process that
// shares no instance region (vekInstanceStatus) has a controller of its own.
//
// Rules
//   - All sizes are bytes, in 32 bits: an instance counts at most 4 GiB less one byte. A request that would carry the
//     count beyond that is refused, forced or not.
//   - Any thread, any process of the instance. Counters change under the controller latch only (type 466). Its holder
//     may be killed at any instruction: the next thread repairs the counters from those of the consumers.
//   - What a process was granted is returned when the process has ended, however it ended: the next request that does
//     not fit, registration or query finds that out.
//   - Release call-backs run in the process that registered them, with the controller latch held. A call-back gives
//     back with freeMemory(consumer, bytes, true) and updates its cache with setCachedMemory(consumer, bytes, true);
//     it requests nothing (that is refused), registers nothing, and waits for nobody who might. A consumer of another
//     process is left a note, which the next call of the controller in that process serves.
//   - A controller that has not been initialised in this run of the instance is not active: it grants everything and
//     counts nothing.
#pragma once

#include <cstddef>
#include <cstdint>

#include "veksys/export.h"
#include "veksys/sync/latch.h"
#include "veksys/types.h"

inline constexpr std::uint32_t SQLO_MEM_CONTROLLER_EYE_CATCHER = 0xE4DCC0DE;
inline constexpr std::uint32_t SQLO_MEM_CONSUMERS = 1024;                // at most, in an instance
inline constexpr std::size_t SQLO_MEM_CONSUMER_NAME_BYTES = 64;          // a name is cut to one less
inline constexpr std::uint64_t SQLO_MEM_AUTOMATIC_MOST = 4'096'000'000;  // the largest automatic bound

// Gives back up to `bytes` of what a consumer keeps as a cache, by freeMemory with the latch held. What it answers is
// not relied upon: the counters tell.
using SqloMemReleaseCallback = std::uint32_t (*)(std::uint32_t bytes, void* argument);

// Whose memory a consumer holds. The cache of database consumers is counted apart; the name of a database consumer is
// that of its database.
enum SqloMemConsumerKind : std::uint32_t {
  SQLO_MEM_CONSUMER_INSTANCE = 0,
  SQLO_MEM_CONSUMER_DATABASE = 1,
  SQLO_MEM_CONSUMER_APPLICATION = 2,
};

// Flag of setNewUpperBound: a bound below what is in use is refused. Without it such a bound is set, and requests are
// refused until enough was freed.
inline constexpr std::uint32_t SQLO_MEM_BOUND_NOT_BELOW_USE = 0x1;

// Physical memory as this process may use it.
struct SqloPhysicalMemoryStats {
  std::uint64_t totalBytes;      // the machine's, or the limit of the control group when that is less
  std::uint64_t availableBytes;  // of it, without swapping
  std::uint64_t machineBytes;
  std::uint64_t limitBytes;  // of the control group; all ones: none
};

// What the controller counts.
struct SqloMemPartitionStats {
  bool active;  // false: all that follows is 0
  bool automatic;
  bool boundFixed;
  bool strict;
  std::uint32_t upperBound;
  std::uint32_t initialBound;
  std::uint32_t desiredMax;  // 0: none
  std::uint32_t currentSize;
  std::uint32_t usageHighWater;
  std::uint32_t cachedMemory;
  std::uint32_t cachedDatabaseMemory;
  std::uint32_t consumers;
};

// The consumers of one database together.
struct SqloMemDatabaseStats {
  std::uint32_t consumers;
  std::uint32_t currentSize;
  std::uint32_t cachedMemory;
  std::uint32_t usageHighWater;  // of its consumers, added up
};

// Where the instance stands, seen from one database.
struct SqloMemStatsSummary {
  std::uint32_t available;       // may still be granted
  std::uint32_t reclaimable;     // cached by consumers other than those of the database
  std::uint32_t databaseSize;    // held by the database
  std::uint32_t otherDatabases;  // held by other databases
  std::uint32_t otherConsumers;  // held by consumers that are no database
};

// Layouts of the statistics as text: that of the diagnostic log, with units behind the figures, and that of a dump.
enum SqloMemStatsLayout : std::uint32_t { SQLO_MEM_STATS_LOG = 0, SQLO_MEM_STATS_DUMP = 1 };

class SqloMemController;

// A consumer's record, in memory that the processes share. Changed by the controller only.
class SqloMemoryConsumer {
 public:
  SqloMemoryConsumer(const SqloMemoryConsumer&) = delete;
  SqloMemoryConsumer& operator=(const SqloMemoryConsumer&) = delete;

 private:
  friend class SqloMemController;
  friend struct SqloMemControllerAccess;
  SqloMemoryConsumer() = default;

  std::uint32_t m_next;  // number of the next consumer in the list, 0 none
  std::uint32_t m_currentSize;
  std::uint32_t m_highWater;
  std::uint32_t m_cached;
  std::uint64_t m_owner;       // life of the process that registered it; 0: the record is free
  std::uint32_t m_askedBytes;  // what another process wants released
  std::uint32_t m_kind;
  std::uint32_t m_hasCallback;  // which one is known to its process only
  std::uint32_t m_reserved;
  char m_name[SQLO_MEM_CONSUMER_NAME_BYTES];
};
static_assert(sizeof(SqloMemoryConsumer) == 104);

// The controller: one for all processes of an instance, reached by instance().
class VEK_EXPORT SqloMemController {
 public:
  SqloMemController(const SqloMemController&) = delete;
  SqloMemController& operator=(const SqloMemController&) = delete;

  // The controller of this process's instance, for the life of the process. A forked child asks again before it uses
  // it.
  //
  //   Result   null when it cannot be had: instanceStatus tells why
  static SqloMemController* instance() noexcept;

  // 0 when instance() answers a controller. SQLO_ADDRESS_TAKEN: something else is mapped where the processes of the
  // instance have it; SQLO_REGION_NO_MEMORY: not even a private one could be mapped.
  static SqlzZrc instanceStatus() noexcept;

  // Makes it active, or begins anew: consumers that were registered are forgotten (calls with them answer
  // SQLO_INV_MEM). Reads the setting VEK_STRICT_INSTANCE_MEMORY (default OFF).
  //
  //   bound          the upper bound and the initial bound
  //   automatic      the bound is automatic: not enforced, unless boundFixed; with the strict setting, physical memory
  //                  is the bound
  //   boundFixed     enforced as it stands even if automatic
  //   desiredMax     an automatic bound is not raised above it; 0: no limit
  //   percentage     of physical memory for automatic sizing; 0: by its own rule. Kept for whoever computes the bound
  //   Result         0; SQLO_REGION_BUSY: another process keeps the lock of the region, nothing is changed
  SqlzZrc initialize(std::uint32_t bound, bool automatic, bool boundFixed, std::uint32_t desiredMax,
                     std::uint64_t percentage) noexcept;

  // Active: initialised in this run of the instance.
  bool isActive() const noexcept {
    return __atomic_load_n(&m_eyeCatcher, __ATOMIC_ACQUIRE) == SQLO_MEM_CONTROLLER_EYE_CATCHER;
  }

  // Registers a consumer of this process.
  //
  //   consumerOut      the record, to be given to deregisterConsumer; null on failure, and when the controller is not
  //                    active (which is success)
  //   size             granted to it at once
  //   name             copied; for a database consumer the name of the database
  //   releaseCallback  null: it has no cache to release
  //   force            the size is granted beyond the bound, too
  //   Result           0
  //                    SQLO_NO_INS_MEM  the bound does not admit `size`
  //                    SQLO_NOMEM       all records are taken
  //                    SQLO_INV_PARM    consumerOut or name null, or no such kind
  SqlzZrc registerConsumer(SqloMemoryConsumer** consumerOut, std::uint32_t size, const char* name, void* argument,
                           SqloMemReleaseCallback releaseCallback, bool force, SqloMemConsumerKind kind) noexcept;

  // Gives back all that a consumer holds, and its record. Once it returns, its call-back is not called any more.
  //
  //   Result   0; SQLO_INV_MEM: not a consumer that this process registered
  SqlzZrc deregisterConsumer(SqloMemoryConsumer* consumer) noexcept;

  // Asks for memory before it is taken.
  //
  //   allowReclaim   other consumers may be asked to release their cache; done for engine units only (VekHost)
  //   force          granted beyond the bound, too
  //   persist        keeps trying instead of giving up after ten attempts; a failure is logged, with the statistics,
  //   once
  //                  until the next success
  //   Result         0, also by a controller that is not active
  //                  SQLO_NOMEM    refused, nothing is changed; also from inside a release call-back
  //                  SQLO_INV_MEM  not a consumer
  //   Fast           one latch pair when the bound is enforced as it stands and the request fits: no system call
  SqlzZrc requestMemory(SqloMemoryConsumer* consumer, std::uint32_t bytes, bool allowReclaim, bool force,
                        bool persist) noexcept;

  // Tells that memory was given back. More than the consumer holds counts as all that it holds, and is logged as the
  // error it is. A cache that would be larger than what is left is counted down to that.
  //
  //   latchHeld   true inside a release call-back, false everywhere else
  void freeMemory(SqloMemoryConsumer* consumer, std::uint32_t bytes, bool latchHeld) noexcept;

  // Tells how much of what the consumer holds it could release; more than it holds counts as all of it.
  void setCachedMemory(SqloMemoryConsumer* consumer, std::uint32_t bytes, bool latchHeld) noexcept;

  // Changes the upper bound. An automatic bound is limited to the desired maximum.
  //
  //   desired   the new desired maximum; 0 leaves it as it is
  //   flags     SQLO_MEM_BOUND_NOT_BELOW_USE or 0
  //   Result    0; SQLO_NO_INS_MEM: below what is in use; SQLO_INV_PARM: unknown flags; SQLO_NOTAVAIL: not active.
  //             Nothing is changed then
  int setNewUpperBound(std::uint32_t bound, std::uint32_t desired, std::uint32_t flags) noexcept;

  // Changes the desired maximum (0: none), and whether the bound is automatic. The bound stays as it is.
  void setNewDesiredMaxValue(std::uint32_t value) noexcept;
  void setAutomaticFlag(bool on) noexcept;

  // Computes the automatic bound from physical memory: the configured percentage of it, else between 75% and 95%, the
  // more the larger the machine; divided among the members of the instance on this machine (MEMBERS_ON_HOST of
  // VekInstanceControl); at most SQLO_MEM_AUTOMATIC_MOST.
  //
  //   physicalMemory   when given, gets the physical memory
  //   wholeChunks      the result is rounded down to a multiple of 65,536
  //   configured       percentage, 0: none
  //   result           gets the bound
  //   Result           0; SQLO_INV_PARM: result is null; SQLO_NOTAVAIL: physical memory is not known, nothing is
  //   written
  static SqlzZrc calculateAutomaticSize(std::uint64_t* physicalMemory, bool wholeChunks, std::uint64_t configured,
                                        std::uint64_t* result) noexcept;

  // Copies counters, all of one moment. `databaseName` is that of database consumers; one that nobody has gives zeros.
  //
  //   Result   0; SQLO_INV_PARM: a null pointer
  SqlzZrc queryStats(SqloMemPartitionStats* partitionStats) noexcept;
  SqlzZrc queryDBMemStats(const char* databaseName, SqloMemDatabaseStats* databaseStats) noexcept;
  SqlzZrc getPartitionStatsSummary(const char* databaseName, SqloMemStatsSummary* summary,
                                   SqloMemPartitionStats* partitionStats) noexcept;

  // The statistics as text, in pieces that fit a buffer: a block about the instance, then a line per consumer. Takes
  // the controller latch.
  //
  //   position   0 at first; says where to go on, 0 again once all is written
  //   Result     the characters written; the text is terminated. A buffer of less than 512 bytes gets nothing
  std::size_t formatStatistics(SqloMemStatsLayout layout, char* buffer, std::size_t bytes,
                               std::uint32_t* position) noexcept;

  // Writes the statistics to the diagnostic log; more consumers than fit one record go on in the next.
  void logStatistics() noexcept;

 private:
  friend struct SqloMemControllerAccess;
  SqloMemController() = default;

  std::uint32_t m_eyeCatcher;
  std::uint32_t m_upperBound;
  std::uint32_t m_initialBound;
  std::uint32_t m_currentSize;
  std::uint32_t m_usageHighWater;
  std::uint32_t m_cachedMemory;
  std::uint32_t m_cachedDatabaseMemory;
  std::uint8_t m_automatic;
  std::uint32_t m_firstConsumer;  // number of the first consumer in the list, 0 none
  SqloSpinLatch m_latch;
  std::uint8_t m_boundFixed;
  std::uint8_t m_loggingSuppressed;
  std::uint8_t m_strict;
  std::uint32_t m_desiredMax;
  std::uint64_t m_percentage;
  std::uint64_t m_noted[16];  // a bit per process slot: consumers of that process have been left a note
  SqloMemoryConsumer m_consumers[SQLO_MEM_CONSUMERS];
};

extern "C" {

// Physical memory as this process may use it: the limit of its control group counts where there is one. Reads small
// files of the kernel.
//
//   Result   0; SQLO_INV_PARM: null; SQLO_NOTAVAIL: the kernel does not tell
VEK_EXPORT SqlzZrc sqloGetPhysicalMemoryStats(SqloPhysicalMemoryStats* stats) noexcept;

}  // extern "C"
