// The memory controller: its consumers, their counters, their call-backs.
#include <algorithm>
#include <cstring>

#include "diag/base/traced.h"
#include "memory/sqlo_mem_ctlr.h"
#include "platform/osse.h"
#include "veksys/codes.h"

namespace vek {

constinit std::atomic<std::uint32_t> g_memCallbackThread{0};
constinit std::atomic<std::uint32_t> g_memOverFreed{0};

namespace {

using Access = SqloMemControllerAccess;

// The call-backs of this process, by the number of their consumer. Guarded by the controller latch.
struct LocalCallback {
  std::uint64_t
      owner;  // of the record when it was registered: a forked child has its parent's table, not its consumers
  SqloMemReleaseCallback release;
  void* argument;
};
constinit LocalCallback g_callbacks[SQLO_MEM_CONSUMERS] = {};

}  // namespace

bool sqloi_isInMemCallback() noexcept {
  const std::uint32_t thread = g_memCallbackThread.load(std::memory_order_relaxed);
  return thread != 0 && thread == ossThreadId();
}

}  // namespace vek

// ---- the counters ----------------------------------------------------------------------------------------------

void SqloMemControllerAccess::grant(Controller& controller, Consumer& consumer, std::uint32_t bytes) noexcept {
  consumer.m_currentSize += bytes;
  consumer.m_highWater = std::max(consumer.m_highWater, consumer.m_currentSize);
  controller.m_currentSize += bytes;
  controller.m_usageHighWater = std::max(controller.m_usageHighWater, controller.m_currentSize);
}

void SqloMemControllerAccess::giveBack(Controller& controller, Consumer& consumer, std::uint32_t bytes) noexcept {
  const std::uint32_t held = std::min(bytes, consumer.m_currentSize);
  if (held != bytes) vek::g_memOverFreed.store(bytes - held, std::memory_order_relaxed);
  consumer.m_currentSize -= held;
  controller.m_currentSize -= held;
  if (consumer.m_cached > consumer.m_currentSize) setCached(controller, consumer, consumer.m_currentSize);
}

void SqloMemControllerAccess::setCached(Controller& controller, Consumer& consumer, std::uint32_t bytes) noexcept {
  const std::uint32_t change = std::min(bytes, consumer.m_currentSize) - consumer.m_cached;  // modulo 2^32
  consumer.m_cached += change;
  controller.m_cachedMemory += change;
  if (isDatabase(consumer)) controller.m_cachedDatabaseMemory += change;
}

// The latch's holder died: the sums and the list are made anew from the records.
SqlzZrc SqloMemControllerAccess::repair(void* /*context*/, void* /*latch*/, std::uint32_t /*typeId*/) noexcept {
  Controller& controller = theController();
  controller.m_firstConsumer = 0;
  controller.m_currentSize = controller.m_cachedMemory = controller.m_cachedDatabaseMemory = 0;
  for (std::uint32_t number = SQLO_MEM_CONSUMERS; number > 0; --number) {
    Consumer& consumer = at(controller, number);
    if (consumer.m_owner == 0) continue;
    consumer.m_next = controller.m_firstConsumer;
    controller.m_firstConsumer = number;
    consumer.m_cached = std::min(consumer.m_cached, consumer.m_currentSize);
    controller.m_currentSize += consumer.m_currentSize;
    controller.m_cachedMemory += consumer.m_cached;
    if (isDatabase(consumer)) controller.m_cachedDatabaseMemory += consumer.m_cached;
  }
  controller.m_usageHighWater = std::max(controller.m_usageHighWater, controller.m_currentSize);
  return 0;
}

void SqloMemControllerAccess::clear(Controller& controller, std::uint32_t bound, bool automatic, bool boundFixed,
                                    bool strict, std::uint32_t desiredMax, std::uint64_t percentage) noexcept {
  for (Consumer& consumer : controller.m_consumers) consumer.m_owner = 0;
  controller.m_firstConsumer = 0;
  controller.m_upperBound = controller.m_initialBound = bound;
  controller.m_currentSize = controller.m_usageHighWater = 0;
  controller.m_cachedMemory = controller.m_cachedDatabaseMemory = 0;
  controller.m_automatic = automatic ? 1 : 0;
  controller.m_boundFixed = boundFixed ? 1 : 0;
  controller.m_strict = strict ? 1 : 0;
  controller.m_loggingSuppressed = 0;
  controller.m_desiredMax = desiredMax;
  controller.m_percentage = percentage;
  std::memset(controller.m_noted, 0, sizeof controller.m_noted);
}

// ---- consumers -------------------------------------------------------------------------------------------------

std::uint32_t SqloMemControllerAccess::numberOf(const Controller& controller, const Consumer* consumer) noexcept {
  const auto distance = reinterpret_cast<std::uintptr_t>(consumer) -
                        reinterpret_cast<std::uintptr_t>(controller.m_consumers);  // wraps for what lies below
  if (distance >= sizeof controller.m_consumers || distance % sizeof(Consumer) != 0 || consumer->m_owner == 0) return 0;
  return static_cast<std::uint32_t>(distance / sizeof(Consumer)) + 1;
}

// The owner is stored before the record is linked: from then on the record counts for whoever repairs.
SqloMemoryConsumer* SqloMemControllerAccess::add(Controller& controller, const char* name, void* argument,
                                                 SqloMemReleaseCallback releaseCallback,
                                                 SqloMemConsumerKind kind) noexcept {
  Consumer* const end = controller.m_consumers + SQLO_MEM_CONSUMERS;
  Consumer* consumer =
      std::find_if(controller.m_consumers, end, [](const Consumer& candidate) { return candidate.m_owner == 0; });
  if (consumer == end) return nullptr;
  const auto number = static_cast<std::uint32_t>(consumer - controller.m_consumers) + 1;
  consumer->m_currentSize = consumer->m_highWater = consumer->m_cached = consumer->m_askedBytes = 0;
  consumer->m_kind = kind;
  consumer->m_hasCallback = releaseCallback != nullptr ? 1 : 0;
  vek::ossCopyText(consumer->m_name, sizeof consumer->m_name, name);
  consumer->m_next = controller.m_firstConsumer;
  vek::g_callbacks[number - 1] = {vek::regionProcessOwner(), releaseCallback, argument};
  consumer->m_owner = vek::regionProcessOwner();
  controller.m_firstConsumer = number;
  return consumer;
}

void SqloMemControllerAccess::remove(Controller& controller, Consumer& consumer) noexcept {
  giveBack(controller, consumer, consumer.m_currentSize);
  const std::uint32_t number = numberOf(controller, &consumer);
  std::uint32_t* link = &controller.m_firstConsumer;
  while (*link != number) link = &at(controller, *link).m_next;
  *link = consumer.m_next;
  consumer.m_owner = 0;
}

// Consumers of processes that have ended go. Whether a process lives is asked once per process and walk.
void SqloMemControllerAccess::removeDead(Controller& controller) noexcept {
  std::uint64_t known = vek::regionProcessOwner();
  bool lives = true;
  visitConsumers(controller, [&](Consumer& consumer) {
    if (consumer.m_owner != known) {
      known = consumer.m_owner;
      lives = vek::regionOwnerLives(known);
    }
    if (!lives) remove(controller, consumer);
    return true;
  });
}

SqlzZrc SqloMemController::registerConsumer(SqloMemoryConsumer** consumerOut, std::uint32_t size, const char* name,
                                            void* argument, SqloMemReleaseCallback releaseCallback, bool force,
                                            SqloMemConsumerKind kind) noexcept {
  vek::VekTrace<vek::FID_SqloMemController_registerConsumer> trace;
  if (consumerOut == nullptr) return trace.exit(SQLO_INV_PARM);
  *consumerOut = nullptr;
  if (name == nullptr || kind > SQLO_MEM_CONSUMER_APPLICATION) return trace.exit(SQLO_INV_PARM);
  if (!isActive()) return trace.exit(0);
  if (vek::sqloi_isInMemCallback()) return trace.exit(SQLO_NOMEM);
  const SqlzZrc attached = vek::regionAttach();
  if (attached != 0) return trace.exit(attached);
  SqloMemoryConsumer* consumer = nullptr;
  {
    const vek::MemOperation operation(*this);
    consumer = vek::Access::add(*this, name, argument, releaseCallback, kind);
    if (consumer == nullptr) {
      vek::Access::removeDead(*this);
      consumer = vek::Access::add(*this, name, argument, releaseCallback, kind);
    }
  }
  if (consumer == nullptr) return trace.exit(SQLO_NOMEM);
  std::uint32_t attempts = 0;
  if (vek::sqloi_requestMemory(*this, {consumer, size, true, force}, false, &attempts) != 0) {
    const vek::MemOperation operation(*this);
    vek::Access::remove(*this, *consumer);
    return trace.exit(SQLO_NO_INS_MEM);
  }
  *consumerOut = consumer;
  return trace.exit(0);
}

SqlzZrc SqloMemController::deregisterConsumer(SqloMemoryConsumer* consumer) noexcept {
  vek::VekTrace<vek::FID_SqloMemController_deregisterConsumer> trace;
  if (!isActive() || vek::sqloi_isInMemCallback()) return trace.exit(SQLO_INV_MEM);
  const vek::MemOperation operation(*this);
  if (vek::Access::numberOf(*this, consumer) == 0 || consumer->m_owner != vek::regionProcessOwner())
    return trace.exit(SQLO_INV_MEM);
  vek::Access::remove(*this, *consumer);
  return trace.exit(0);
}

// ---- releasing -------------------------------------------------------------------------------------------------

// A consumer of this process is asked at once, one of another process when that calls next.
void SqloMemControllerAccess::askToRelease(Controller& controller, Consumer& consumer, std::uint32_t bytes) noexcept {
  if (consumer.m_hasCallback == 0) return;
  if (consumer.m_owner != vek::regionProcessOwner()) {
    const std::uint32_t slot = vek::regionOwnerSlot(consumer.m_owner);
    consumer.m_askedBytes = std::max(consumer.m_askedBytes, bytes);
    controller.m_noted[slot / 64] |= std::uint64_t{1} << (slot % 64);
    return;
  }
  const vek::LocalCallback callback = vek::g_callbacks[numberOf(controller, &consumer) - 1];
  if (callback.owner != consumer.m_owner || callback.release == nullptr) return;
  vek::g_memCallbackThread.store(vek::ossThreadId(), std::memory_order_relaxed);
  (void)callback.release(bytes, callback.argument);  // the counters tell what came of it
  vek::g_memCallbackThread.store(0, std::memory_order_relaxed);
}

void SqloMemControllerAccess::serveNotes(Controller& controller) noexcept {
  const std::uint32_t slot = vek::regionProcessSlot();
  controller.m_noted[slot / 64] &= ~(std::uint64_t{1} << (slot % 64));
  visitConsumers(controller, [&](Consumer& consumer) {
    if (consumer.m_owner != vek::regionProcessOwner() || consumer.m_askedBytes == 0) return true;
    const std::uint32_t bytes = consumer.m_askedBytes;
    consumer.m_askedBytes = 0;
    askToRelease(controller, consumer, bytes);
    return true;
  });
}
