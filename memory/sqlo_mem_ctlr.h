// The inside of the memory controller.
//
// Invariants, whenever nobody holds the latch:
//
//   1  m_currentSize is the sum of m_currentSize of all consumers; both cache counters likewise
//   2  m_cached of a consumer is at most its m_currentSize
//   3  the list holds exactly the records whose m_owner is not 0
//   4  the bit of a process is set when one of its consumers has been left a note
//
// The records are the truth: whoever gets the latch of a holder that died makes the sums and the list anew from them. A
// record belongs to a process, so a record that a dying process left half changed is one that is about to be taken
// back, or one whose sizes are both valid: each size is stored once per change.
//
// Call-backs are functions of one process. They stand in a table of that process, under the same numbers as the
// records.
#pragma once

#include <atomic>
#include <cstdint>

#include "platform/region.h"
#include "veksys/memory/controller.h"

namespace vek {

// What a request is, and the physical memory where that is its bound.
struct MemRequest {
  SqloMemoryConsumer* consumer;
  std::uint32_t bytes;
  bool allowReclaim;
  bool force;
  std::uint64_t owner = 0;  // when given, the record must still be that process's
  bool physicalKnown = false;
  std::uint64_t physicalBytes = 0;
};

enum class MemAttempt { kGranted, kRefused, kNotAConsumer, kNeedsPhysicalMemory };

}  // namespace vek

// The controller's inner steps. All of them need the latch.
struct SqloMemControllerAccess {
  using Controller = SqloMemController;
  using Consumer = SqloMemoryConsumer;

  static Controller& theController() noexcept;
  static SqloSpinLatch& latch(Controller& controller) noexcept { return controller.m_latch; }

  // The number of a registered consumer, 0 when the pointer leads to none.
  static std::uint32_t numberOf(const Controller& controller, const Consumer* consumer) noexcept;
  static Consumer& at(Controller& controller, std::uint32_t number) noexcept {
    return controller.m_consumers[number - 1];
  }

  // Calls `visit(consumer)` for every consumer of the list, which it may take out of it; stops when it answers false.
  template <class Visit>
  static void visitConsumers(Controller& controller, Visit visit) noexcept {
    for (std::uint32_t number = controller.m_firstConsumer; number != 0;) {
      Consumer& consumer = at(controller, number);
      number = consumer.m_next;
      if (!visit(consumer)) return;
    }
  }

  static std::uint64_t ownerOf(const Consumer& consumer) noexcept { return consumer.m_owner; }
  static bool isDatabase(const Consumer& consumer) noexcept { return consumer.m_kind == SQLO_MEM_CONSUMER_DATABASE; }

  // ---- the counters
  static void grant(Controller& controller, Consumer& consumer, std::uint32_t bytes) noexcept;
  static void giveBack(Controller& controller, Consumer& consumer, std::uint32_t bytes) noexcept;
  static void setCached(Controller& controller, Consumer& consumer, std::uint32_t bytes) noexcept;
  static SqlzZrc repair(void* context, void* latch, std::uint32_t typeId) noexcept;

  // ---- consumers
  static Consumer* add(Controller& controller, const char* name, void* argument, SqloMemReleaseCallback releaseCallback,
                       SqloMemConsumerKind kind) noexcept;
  static void remove(Controller& controller, Consumer& consumer) noexcept;
  static void removeDead(Controller& controller) noexcept;
  static void clear(Controller& controller, std::uint32_t bound, bool automatic, bool boundFixed, bool strict,
                    std::uint32_t desiredMax, std::uint64_t percentage) noexcept;

  // ---- releasing
  static void askToRelease(Controller& controller, Consumer& consumer, std::uint32_t bytes) noexcept;
  static void serveNotes(Controller& controller) noexcept;
  static bool noteFor(Controller& controller, std::uint32_t slot) noexcept {
    return slot != vek::REGION_NO_SLOT && (controller.m_noted[slot / 64] >> (slot % 64) & 1) != 0;
  }

  // ---- without the latch: each number as it stands at the moment it is read
  struct Seen {
    std::uint64_t owner;  // 0: no consumer
    std::uint32_t kind;
    std::uint32_t currentSize;
    std::uint32_t highWater;
    std::uint32_t cached;
    char name[SQLO_MEM_CONSUMER_NAME_BYTES];
  };
  static Seen look(const Controller& controller, std::uint32_t number) noexcept;
  static SqloMemPartitionStats look(const Controller& controller) noexcept;

  // ---- requests
  static vek::MemAttempt attempt(Controller& controller, const vek::MemRequest& request) noexcept;
  static void reclaim(Controller& controller, const Consumer& requester, std::uint32_t bytes) noexcept;
};

namespace vek {

// The thread of this process that runs a call-back, 0 none.
extern std::atomic<std::uint32_t> g_memCallbackThread;
bool sqloi_isInMemCallback() noexcept;

// Set when a consumer gave back more than it had; whoever drops the latch reports that.
extern std::atomic<std::uint32_t> g_memOverFreed;

// How often a persistent request is tried; lowered by tests.
extern std::uint32_t g_memPersistentAttempts;

// An operation on the controller: the latch for the length of a scope. Serves what other processes ask of this one.
class MemOperation {
 public:
  explicit MemOperation(SqloMemController& controller, std::uint32_t line = __builtin_LINE()) noexcept
      : controller_(controller) {
    // Its policy repairs, so that a capture never fails.
    (void)SqloMemControllerAccess::latch(controller).captureLatch("sqlo_mem_ctlr", line);
    if (SqloMemControllerAccess::noteFor(controller, regionProcessSlot())) [[unlikely]]
      SqloMemControllerAccess::serveNotes(controller);
  }
  ~MemOperation() {
    SqloMemControllerAccess::latch(controller_).releaseLatch();
    if (g_memOverFreed.load(std::memory_order_relaxed) != 0) [[unlikely]]
      reportOverFreed();
  }
  MemOperation(const MemOperation&) = delete;
  MemOperation& operator=(const MemOperation&) = delete;

 private:
  void reportOverFreed() noexcept;

  SqloMemController& controller_;
};

// Asks for memory as requestMemory does; the attempts that were made go to `attempts`.
SqlzZrc sqloi_requestMemory(SqloMemController& controller, MemRequest request, bool persist,
                            std::uint32_t* attempts) noexcept;

// The automatic bound of a machine with so much physical memory; the fraction of it that was taken goes to `fraction`.
std::uint64_t sqloi_automaticBound(std::uint64_t physicalBytes, std::uint64_t percentage, std::uint32_t members,
                                   bool wholeChunks, double* fraction) noexcept;

}  // namespace vek
