// The shared latch SQLO_SLATCH_CAS32.
//
// The fast ways accept a word without any other bit than the holders' own; everything else comes here. Both waiter bits
// and the reservation change only under the latch's cs, together with the word itself in one compare-and-swap:
//
//   a waiter    sets its bit by a compare-and-swap that fails when the conflict is over, so that a release that did not
//               see the bit has happened before and the waiter sees that
//   a releaser  that sees a bit takes cs first; the word with the hold given back, the bits of those it wakes cleared
//               and the reservation set are one change of it, so that no state in between exists for others to meet
//
// verify/latch_cas32.pml is the model of the two.
#include <algorithm>

#include "platform/osse.h"
#include "sync/sqloLatchAccess.h"
#include "sync/sqloLatchDeath.h"
#include "sync/sqloLatchTuning.h"
#include "sync/sqloLatchWord.h"
#include "sync/sqloSemPool.h"
#include "veksys/codes.h"
#include "veksys/sync/latch.h"
#include "veksys/sync/latch_control.h"

namespace vek {
namespace {

using Access = SqloSharedLatchAccess;

// A request on its way through the slow path.
struct Request {
  SQLO_SLATCH_CAS32& latch;
  std::uint32_t increment;  // what it adds to the word
  std::uint32_t own;        // what of the word is the requester's: 1 when it converts a shared hold
  bool spins;
  LatchHold& hold;
  const char* file;
  std::uint32_t line;

  bool isExclusive() const noexcept { return increment == SQLO_LATCH_EXCLUSIVE; }
  bool isUpgrade() const noexcept { return own != 0; }
  WaiterKind kind() const noexcept {
    if (isUpgrade()) return WaiterKind::kUpgrade;
    return isExclusive() ? WaiterKind::kExclusive : WaiterKind::kShared;
  }
  std::uint32_t waiterBit() const noexcept { return isExclusive() ? SQLO_SLATCH_WAITER_X : SQLO_SLATCH_WAITER_S; }
};

void check(const SQLO_SLATCH_CAS32& latch, std::uint32_t state, LatchUse use) noexcept {
  const SqlzZrc fault = latchWordFault(state, latch.flags(), use);
  if (fault != 0) [[unlikely]]
    sqloPanic(fault, "A latch word is corrupt", &latch);
  if (use == LatchUse::kExpectsShared && (state & SQLO_SLATCH_HOLDERS) == 0) [[unlikely]]
    sqloPanic(SQLO_LATCH_NOT_HELD, "A shared latch that nobody holds is converted", &latch);
}

bool conflicts(const Request& request, std::uint32_t state) noexcept {
  const std::uint32_t mask = latchConflictMask(request.increment, request.latch.flags());
  if (((state - request.own) & mask) != 0) return true;
  return !request.isExclusive() && (state & SQLO_SLATCH_HOLDERS) == SQLO_SLATCH_HOLDERS;  // no room for one more
}

enum class Attempt { kGranted, kConflict };

// Tries until there is a conflict; an exclusive holder consumes the reservation.
Attempt attempt(const Request& request) noexcept {
  auto word = Access::state(request.latch);
  std::uint32_t state = word.load(std::memory_order_relaxed);
  for (;;) {
    check(request.latch, state, request.isUpgrade() ? LatchUse::kExpectsShared : LatchUse::kOther);
    if (conflicts(request, state)) return Attempt::kConflict;
    const std::uint32_t next = (state - request.own + request.increment) & ~SQLO_SLATCH_RESERVED_X;
    if (word.compare_exchange_weak(state, next, std::memory_order_acq_rel, std::memory_order_relaxed))
      return Attempt::kGranted;
  }
}

bool spin(const Request& request) noexcept {
  const LatchTuning& tuning = sqloi_tuning(request.latch.typeId());
  const SpinLeave leave(tuning);
  if (!request.spins || !leave.granted()) return false;
  const std::uint32_t loops = request.isExclusive() ? tuning.xloop : tuning.sloop;
  const std::uint32_t waste = request.isExclusive() ? tuning.xwaste : tuning.swaste;
  for (std::uint32_t i = 0; i < loops; ++i) {
    request.hold.spins();  // a thread that is killed meanwhile does not look like a holder
    sqloi_wasteTime(tuning, waste);
    request.hold.tries();
    if (attempt(request) == Attempt::kGranted) return true;
  }
  return false;
}

// ---- waiting; the functions up to the next line run under cs ----------------------------------------------------

// The latch's reference to its element; one between processes has an element for life.
std::uint64_t& elementIn(SQLO_SLATCH_CAS32& latch) noexcept {
  std::uint64_t& reference = Access::element(latch);
  if (reference == 0 && Access::isBetweenProcesses(latch))
    sqloPanic(SQLO_SLATCH_ERROR_SEMPOOL_POINTER_NULL, "A latch between processes has no semaphore element", &latch);
  return reference;
}

// Attaches to the semaphore element, drawing one when the first waiter of a private latch comes. 0: none is left, the
// thread rests instead.
SemElementRef attach(const Request& request) noexcept {
  std::uint64_t& reference = elementIn(request.latch);
  if (reference == 0) reference = sqloi_drawLocalElement();
  SemElement* element = sqloi_elementOf(reference);
  if (element == nullptr) return 0;
  ++element->attached;
  if (request.isUpgrade()) element->upgrading = 1;
  return reference;
}

void detach(const Request& request, SemElementRef attached) noexcept {
  if (attached == 0) return;
  std::uint64_t& reference = Access::element(request.latch);
  if (reference != attached)
    sqloPanic(SQLO_SLATCH_ERROR_SEMPOOL_POINTER_CHANGED, "The semaphore element of a latch is not the one waited on",
              &request.latch);
  SemElement* element = sqloi_elementOf(attached);
  if (request.isUpgrade()) element->upgrading = 0;
  if (--element->attached != 0 || Access::isBetweenProcesses(request.latch)) return;
  reference = 0;
  sqloi_freeElement(attached);
}

// Sets the waiter bit unless the conflict is over meanwhile.
Attempt enqueue(const Request& request) noexcept {
  auto word = Access::state(request.latch);
  for (;;) {
    request.hold.tries();
    if (attempt(request) == Attempt::kGranted) return Attempt::kGranted;
    request.hold.sleeps();
    std::uint32_t state = word.load(std::memory_order_relaxed);
    if (!conflicts(request, state)) continue;
    if ((state & SQLO_SLATCH_HOLDERS) == SQLO_SLATCH_HOLDERS && !request.isExclusive()) return Attempt::kConflict;
    if (word.compare_exchange_strong(state, state | request.waiterBit(), std::memory_order_acq_rel,
                                     std::memory_order_relaxed))
      return Attempt::kConflict;
  }
}

std::uint32_t& waitersOf(const Request& request, SemElementRef reference) noexcept {
  return sqloi_elementOf(reference)->waiters[static_cast<std::uint32_t>(request.kind())];
}

// A waiter leaves that nobody has posted: with the last one its bit goes.
void dequeue(const Request& request, SemElementRef reference) noexcept {
  std::uint32_t& waiters = waitersOf(request, reference);
  if (waiters != 0) --waiters;
  const SemElement& element = *sqloi_elementOf(reference);
  const std::uint32_t alike = request.isExclusive() ? element.waiters[1] + element.waiters[2] : element.waiters[0];
  if (alike == 0) Access::state(request.latch).fetch_and(~request.waiterBit(), std::memory_order_acq_rel);
}

// -----------------------------------------------------------------------------------------------------------------

enum class Woken { kPosted, kTimeout };

Woken sleep(const Request& request, SemElementRef reference, unsigned milliseconds) noexcept {
  if (reference != 0)
    return sqloi_waitElement(reference, request.kind(), milliseconds) ? Woken::kPosted : Woken::kTimeout;
  ossSleepMs(1);
  return Woken::kTimeout;
}

// One thread's wait, from the first look under cs to the hold or the refusal.
class Wait {
 public:
  explicit Wait(const Request& request) noexcept : request_(request) {}

  SqlzZrc run() noexcept {
    const ErrnoKept kept;
    const int cancelState = ossDisableCancellation();
    request_.hold.beginWaiting(request_.file, request_.line);
    request_.hold.setSince(ossMonotonicNs());
    const SqlzZrc result = wait();
    if (result == 0) request_.hold.setSince(ossMonotonicNs());
    request_.hold.endWaiting();
    ossRestoreCancellation(cancelState);
    return result;
  }

 private:
  SqlzZrc wait() noexcept {
    for (;;) {
      const Look outcome = look();
      if (outcome == Look::kGranted) return 0;
      if (outcome == Look::kUpgradeConflict) {
        if (otherUpgraderLives()) return SQLO_LATCH_UPGRADE_CONFLICT;
        continue;
      }
      const Woken woken = sleep(request_, reference_, slice_.next());
      posted_ = woken == Woken::kPosted;
      if (posted_) continue;
      const Rescue rescue = sqloi_rescueShared(request_.latch, request_.hold);
      if (rescue == Rescue::kOwned) return becomeWanted();
      if (rescue == Rescue::kRefused) return refuse();
    }
  }

  enum class Look { kGranted, kQueued, kUpgradeConflict };

  // Under cs: settles what the last sleep came to, tries, and lines up again.
  Look look() noexcept {
    const CsGuard guard(request_.latch);
    settle();
    if (enqueue(request_) == Attempt::kGranted) {
      leave();
      return Look::kGranted;
    }
    if (reference_ == 0 && anotherUpgrades()) return Look::kUpgradeConflict;
    if (!isQueued_) lineUp();
    if (reference_ == 0 && request_.isUpgrade()) return Look::kUpgradeConflict;  // nothing would tell another one
    return Look::kQueued;
  }

  // Of two shared holders that wait to become the exclusive one each would wait for the other.
  bool anotherUpgrades() const noexcept {
    const SemElement* element = sqloi_elementOf(Access::element(request_.latch));
    return request_.isUpgrade() && element != nullptr && element->upgrading != 0;
  }

  // The other upgrader may have died while it waited; its place is free then.
  bool otherUpgraderLives() noexcept {
    request_.hold.tries();  // this thread is not in line
    return sqloi_rescueShared(request_.latch, request_.hold) == Rescue::kNothing;
  }

  // A post that came while the thread was on its way here counts as well.
  void settle() noexcept {
    if (!isQueued_ || reference_ == 0) return;
    if (!posted_) posted_ = sqloi_waitElement(reference_, request_.kind(), 0);
    if (!posted_) return;
    isQueued_ = false;
    posted_ = false;
    std::uint16_t& pending = Access::postsPending(request_.latch);
    if (request_.kind() == WaiterKind::kExclusive && pending != 0) --pending;
  }

  void lineUp() noexcept {
    if (reference_ == 0) reference_ = attach(request_);
    if (reference_ == 0) return;
    ++waitersOf(request_, reference_);
    isQueued_ = true;
  }

  void leave() noexcept {
    if (isQueued_) dequeue(request_, reference_);
    isQueued_ = false;
    detach(request_, reference_);
    reference_ = 0;
  }

  // The hold of a dead thread became the caller's, exclusively.
  SqlzZrc becomeWanted() noexcept {
    {
      const CsGuard guard(request_.latch);
      settle();
      leave();
    }
    if (!request_.isExclusive()) sqloi_downgrade(request_.latch);
    return 0;
  }

  SqlzZrc refuse() noexcept {
    const CsGuard guard(request_.latch);
    settle();
    leave();
    return SQLO_LATCH_HOLDER_DIED;
  }

  const Request& request_;
  SemElementRef reference_ = 0;
  bool isQueued_ = false;
  bool posted_ = false;
  WaitSlice slice_;
};

// ---- releasing --------------------------------------------------------------------------------------------------

// What a release does besides giving the hold back.
struct Handover {
  std::uint32_t next;                            // the word
  std::uint32_t wake[WAITER_KINDS] = {0, 0, 0};  // how many waiters of each kind
};

// Who waits at an element, and how the latch lets them in; read under cs.
struct Queue {
  std::uint32_t shared = 0;
  std::uint32_t exclusive = 0;
  bool upgrading = false;  // and has not been woken
  bool noStarvation = false;
  bool xIsOnItsWay = false;  // an exclusive waiter has been posted and has not looked yet
};

Queue queueOf(SQLO_SLATCH_CAS32& latch) noexcept {
  Queue queue;
  queue.noStarvation = (latch.flags() & SQLO_LATCH_NO_X_STARVATION) != 0;
  queue.xIsOnItsWay = Access::postsPending(latch) != 0;
  if (const SemElement* element = sqloi_elementOf(elementIn(latch)); element != nullptr) {
    queue.shared = element->waiters[0];
    queue.exclusive = element->waiters[1];
    queue.upgrading = element->waiters[2] != 0;
  }
  return queue;
}

// The next exclusive waiter gets its turn; where it is not to starve the latch is reserved for it.
Handover wakeExclusive(std::uint32_t word, const Queue& queue) noexcept {
  Handover handover = {word};
  if (queue.noStarvation) handover.next |= SQLO_SLATCH_RESERVED_X;
  if (queue.xIsOnItsWay) return handover;
  handover.wake[1] = 1;
  if (queue.exclusive == 1) handover.next &= ~SQLO_SLATCH_WAITER_X;
  return handover;
}

Handover wakeShared(std::uint32_t word, const Queue& queue) noexcept {
  return {word & ~SQLO_SLATCH_WAITER_S, {queue.shared, 0, 0}};
}

// `after` is the word with one hold given back.
Handover afterRelease(SQLO_SLATCH_CAS32& latch, std::uint32_t after) noexcept {
  const Queue queue = queueOf(latch);
  const std::uint32_t holders = after & SQLO_SLATCH_HOLDERS;
  // The last holder waits to become the exclusive one. The bit it waited under stays, since shared requesters may wait
  // behind it, until a release finds nobody there.
  if (holders == 1 && queue.upgrading) return {after, {0, 0, 1}};
  if (holders != 0) return {after};
  // A waiter that found no element looks by itself; its bit must not outlive the conflict.
  if (queue.shared == 0) after &= ~SQLO_SLATCH_WAITER_S;
  if (queue.exclusive == 0) after &= ~SQLO_SLATCH_WAITER_X;
  const bool exclusiveFirst = queue.noStarvation || queue.shared == 0;
  if ((after & SQLO_SLATCH_WAITER_X) != 0 && exclusiveFirst) return wakeExclusive(after, queue);
  return wakeShared(after, queue);
}

// `after` is the word with the exclusive hold turned into a shared one.
Handover afterDowngrade(SQLO_SLATCH_CAS32& latch, std::uint32_t after) noexcept {
  const Queue queue = queueOf(latch);
  if (queue.exclusive == 0) after &= ~SQLO_SLATCH_WAITER_X;
  if (queue.noStarvation && (after & SQLO_SLATCH_WAITER_X) != 0) return {after};
  return wakeShared(after, queue);
}

void wake(SQLO_SLATCH_CAS32& latch, const Handover& handover) noexcept {
  const SemElementRef reference = Access::element(latch);
  SemElement* element = sqloi_elementOf(reference);
  if (element == nullptr) return;
  for (std::uint32_t kind = 0; kind < WAITER_KINDS; ++kind) {
    element->waiters[kind] -= handover.wake[kind];
    sqloi_postElement(reference, static_cast<WaiterKind>(kind), handover.wake[kind]);
  }
  std::uint16_t& pending = Access::postsPending(latch);
  pending = static_cast<std::uint16_t>(pending + handover.wake[1]);
}

// Gives back what `give` computes from the word, under cs, and wakes whom that lets in.
template <class Give>
void giveBackUnderCs(SQLO_SLATCH_CAS32& latch, Give give) noexcept {
  const CsGuard guard(latch);
  auto word = Access::state(latch);
  std::uint32_t state = word.load(std::memory_order_relaxed);
  for (;;) {
    const Handover handover = give(state);
    if (!word.compare_exchange_weak(state, handover.next, std::memory_order_acq_rel, std::memory_order_relaxed))
      continue;
    return wake(latch, handover);
  }
}

[[gnu::noinline, gnu::cold]] SqlzZrc getSlow(SQLO_SLATCH_CAS32& latch, SqloLatchRequest wanted, LatchHold hold,
                                             const char* file, std::uint32_t line, bool spins) noexcept {
  const Request request = {latch, wanted & ~SQLO_LATCH_CONDITIONAL, 0, spins, hold, file, line};
  SqlzZrc result = 0;
  if (attempt(request) == Attempt::kConflict) {
    if ((wanted & SQLO_LATCH_CONDITIONAL) != 0)
      result = SQLO_NOTAVAIL;
    else if (!spin(request))
      result = Wait(request).run();
  }
  if (result == 0)
    hold.granted(file, line);
  else
    hold.cancelled();
  return result;
}

// The fast ways guess the word of a latch that nobody else uses: a load before the compare-and-swap costs as much as a
// third of it. A wrong guess tells the word, with its line in this processor's cache.
bool exchangeWord(SQLO_SLATCH_CAS32& latch, std::uint32_t& guess, std::uint32_t next) noexcept {
  return Access::state(latch).compare_exchange_strong(guess, next, std::memory_order_acq_rel,
                                                      std::memory_order_relaxed);
}

bool fastShared(SQLO_SLATCH_CAS32& latch) noexcept {
  std::uint32_t state = 0;
  if (exchangeWord(latch, state, 1)) return true;
  while (state < SQLO_SLATCH_HOLDERS)
    if (exchangeWord(latch, state, state + 1)) return true;
  return false;
}

bool fastExclusive(SQLO_SLATCH_CAS32& latch) noexcept {
  std::uint32_t free = 0;
  return exchangeWord(latch, free, SQLO_SLATCH_HELD_X);
}

bool fastRelease(SQLO_SLATCH_CAS32& latch, bool exclusive) noexcept {
  std::uint32_t state = exclusive ? SQLO_SLATCH_HELD_X : 1;
  if (exchangeWord(latch, state, 0)) return true;
  while (state - 1 < SQLO_SLATCH_HOLDERS)  // held by sharers, and nobody waits
    if (exchangeWord(latch, state, state - 1)) return true;
  return false;
}

// A thread's first capture, one from a file it has not captured in before, or with debug checks on.
template <class Fast>
[[gnu::noinline, gnu::cold]] SqlzZrc getLong(SQLO_SLATCH_CAS32& latch, SqloLatchRequest request, const char* file,
                                             std::uint32_t line, Fast fast) noexcept {
  const LatchWay way = (request & SQLO_LATCH_CONDITIONAL) != 0 ? LatchWay::kConditional : LatchWay::kWaits;
  const LatchHold hold(Access::subject(latch, (request & SQLO_LATCH_EXCLUSIVE) != 0, way), file, line);
  if (!fast(latch)) return getSlow(latch, request, hold, file, line, true);
  hold.granted(file, line);
  return 0;
}

template <class Fast>
SqlzZrc get(SQLO_SLATCH_CAS32& latch, SqloLatchRequest request, const char* file, std::uint32_t line,
            Fast fast) noexcept {
  const bool exclusive = (request & SQLO_LATCH_EXCLUSIVE) != 0;
  ossPrefetchToWrite(&latch);  // else reading the flags would fetch the line to share it first
  SqloLatchTable* table = t_latchTable;
  const std::uint32_t flags = latch.flags();  // once: behind the exchange the line may be another processor's again
  LatchMark* mark = latchPublishShortly(table, &latch, flags, exclusive ? MARK_EXCLUSIVE : 0, file, line);
  if (mark == nullptr) [[unlikely]]
    return getLong(latch, request, file, line, fast);
  if (!fast(latch)) [[unlikely]]
    return getSlow(latch, request, LatchHold(table, mark, Access::subject(latch, exclusive)), file, line, true);
  latchCount(*table, &latch, flags, file, line);
  return 0;
}

// Who only tries leaves no mark on a latch that is not to be had: tried again and again it would hide that the holder
// is dead.
template <class Fast>
SqlzZrc tryGet(SQLO_SLATCH_CAS32& latch, SqloLatchRequest request, const char* file, std::uint32_t line,
               Fast fast) noexcept {
  ossPrefetchToWrite(&latch);
  const std::uint32_t state = latch.state();
  check(latch, state, LatchUse::kOther);
  if ((state & latchConflictMask(request, latch.flags())) != 0) return SQLO_NOTAVAIL;
  return get(latch, request | SQLO_LATCH_CONDITIONAL, file, line, fast);
}

std::uint32_t takeHold(SQLO_SLATCH_CAS32& latch, std::uint32_t state) noexcept {
  check(latch, state, LatchUse::kReleases);
  if ((state & SQLO_SLATCH_HELD_X) != 0) return state - SQLO_SLATCH_HELD_X;
  if ((state & SQLO_SLATCH_HOLDERS) == 0)
    sqloPanic(SQLO_LATCH_NOT_HELD, "A shared latch that nobody holds is released", &latch);
  return state - 1;
}

void giveBack(SQLO_SLATCH_CAS32& latch) noexcept {
  giveBackUnderCs(latch, [&latch](std::uint32_t word) noexcept { return afterRelease(latch, takeHold(latch, word)); });
}

[[gnu::noinline, gnu::cold]] void releaseLong(SQLO_SLATCH_CAS32& latch) noexcept {
  const std::uint16_t flags = latch.flags();  // once the word is given back the memory may be somebody else's
  giveBack(latch);
  sqloi_latchReleased(&latch, flags);
}

// How the calling thread holds a latch that it converts: what its mark says, or the word where it has none.
bool holdsExclusively(SQLO_SLATCH_CAS32& latch, bool toExclusive) noexcept {
  const std::uint32_t state = latch.state();
  const bool wordIsExclusive = (state & SQLO_SLATCH_HELD_X) != 0;
  const SqloLatchTable* table = t_latchTable;
  const LatchMark* mark = table == nullptr ? nullptr : sqloi_findHold(*table, &latch);
  const bool isExclusive =
      mark == nullptr ? wordIsExclusive : (mark->word.load(std::memory_order_relaxed) & MARK_EXCLUSIVE) != 0;
  check(latch, state, toExclusive && !isExclusive ? LatchUse::kExpectsShared : LatchUse::kReleases);
  const bool isHeld = (state & (SQLO_SLATCH_HELD_X | SQLO_SLATCH_HOLDERS)) != 0;
  const bool isAnothers = mark == nullptr && table != nullptr && table->unlisted == 0;
  if (!isHeld || isAnothers || isExclusive != wordIsExclusive)
    sqloPanic(SQLO_LATCH_NOT_HELD, "A latch that the thread does not hold is converted", &latch);
  return isExclusive;
}

SqlzZrc upgrade(SQLO_SLATCH_CAS32& latch, bool conditional, const char* file, std::uint32_t line) noexcept {
  LatchHold hold(Access::subject(latch, true, LatchWay::kConverts), file, line);
  const Request request = {latch, SQLO_LATCH_EXCLUSIVE, 1, true, hold, file, line};
  SqlzZrc result = 0;
  if (attempt(request) == Attempt::kConflict) {
    if (conditional)
      result = SQLO_NOTAVAIL;
    else if (!spin(request))
      result = Wait(request).run();
  }
  hold.cancelled();  // the hold itself was noted when it was captured
  if (result == 0) LatchHold::changeMode(&latch, true);
  return result;
}

bool isRequest(SqloLatchRequest request) noexcept {
  const SqloLatchRequest wanted = request & ~SQLO_LATCH_CONDITIONAL;
  return wanted == SQLO_LATCH_SHARED || wanted == SQLO_LATCH_EXCLUSIVE;
}

}  // namespace

void sqloi_downgrade(SQLO_SLATCH_CAS32& latch) noexcept {
  std::uint32_t state = SQLO_SLATCH_HELD_X;
  if (!Access::state(latch).compare_exchange_strong(state, 1, std::memory_order_acq_rel, std::memory_order_relaxed))
    giveBackUnderCs(latch, [&](std::uint32_t word) noexcept {
      check(latch, word, LatchUse::kReleases);
      if ((word & SQLO_SLATCH_HELD_X) == 0)
        sqloPanic(SQLO_LATCH_NOT_HELD, "A shared latch that is not held exclusively is converted to shared", &latch);
      return afterDowngrade(latch, word - SQLO_SLATCH_HELD_X + 1);
    });
  LatchHold::changeMode(&latch, false);
}

}  // namespace vek

SqlzZrc SqloSharedLatchAccess::getExclusiveLong(SQLO_SLATCH_CAS32& latch, const char* file,
                                                std::uint32_t line) noexcept {
  vek::LatchHold hold(subject(latch, true), file, line);
  if (!vek::fastExclusive(latch)) return vek::getSlow(latch, SQLO_LATCH_EXCLUSIVE, hold, file, line, false);
  hold.granted(file, line);
  return 0;
}

void SqloSharedLatchAccess::post(SQLO_SLATCH_CAS32& latch) noexcept {
  const vek::CsGuard guard(latch);
  if (vek::queueOf(latch).exclusive != 0) vek::wake(latch, {latch.state(), {0, 1, 0}});
}

SqlzZrc SQLO_SLATCH_CAS32::init(std::uint16_t typeId, std::uint16_t flags) noexcept {
  constexpr std::uint16_t kKnown = SQLO_LATCH_NO_X_STARVATION | SQLO_LATCH_BETWEEN_PROCESSES;
  if (typeId >= SQLO_LATCH_TYPE_COUNT || (flags & ~kKnown) != 0) return SQLO_INV_PARM;
  vek::SemElementRef element = 0;
  if ((flags & SQLO_LATCH_BETWEEN_PROCESSES) != 0)
    if (const SqlzZrc result = vek::sqloi_drawSharedElement(&element); result != 0) return result;
  m_flags = static_cast<std::uint16_t>(flags | typeId);
  m_numXPostsPending = 0;
  m_cs.init(typeId, flags);
  SqloSpinLatchAccess::setFlags(
      m_cs, static_cast<std::uint8_t>(SqloSpinLatchAccess::flags(m_cs) | SqloSpinLatchAccess::kGuardsSharedLatch));
  m_pSemPoolElement = element;
  vek::Access::state(*this).store(0, std::memory_order_release);
  return 0;
}

// Passing through cs waits for threads that are about to leave a release.
void SQLO_SLATCH_CAS32::term() noexcept {
  const vek::CsGuard guard(*this);
  if (vek::Access::isBetweenProcesses(*this)) vek::sqloi_freeElement(m_pSemPoolElement);
  m_pSemPoolElement = 0;
}

SqlzZrc SQLO_SLATCH_CAS32::getShared(const char* file, std::uint32_t line) noexcept {
  return vek::get(*this, SQLO_LATCH_SHARED, file, line, vek::fastShared);
}
SqlzZrc SQLO_SLATCH_CAS32::getExclusive(const char* file, std::uint32_t line) noexcept {
  return vek::get(*this, SQLO_LATCH_EXCLUSIVE, file, line, vek::fastExclusive);
}
SqlzZrc SQLO_SLATCH_CAS32::tryGetShared(const char* file, std::uint32_t line) noexcept {
  return vek::tryGet(*this, SQLO_LATCH_SHARED, file, line, vek::fastShared);
}
SqlzZrc SQLO_SLATCH_CAS32::tryGetExclusive(const char* file, std::uint32_t line) noexcept {
  return vek::tryGet(*this, SQLO_LATCH_EXCLUSIVE, file, line, vek::fastExclusive);
}

void SQLO_SLATCH_CAS32::release() noexcept {
  SqloLatchTable* table = vek::t_latchTable;
  vek::LatchMark* mark = vek::latchNewest(table, this);
  if (mark == nullptr) [[unlikely]]
    return vek::releaseLong(*this);
  const bool exclusive = (mark->word.load(std::memory_order_relaxed) & vek::MARK_EXCLUSIVE) != 0;
  if (!vek::fastRelease(*this, exclusive)) [[unlikely]]
    vek::giveBack(*this);
  vek::latchReleased(*table, *mark);
}

SqlzZrc SQLO_SLATCH_CAS32::getConflict(SqloLatchRequest request) noexcept {
  if (!vek::isRequest(request)) return SQLO_INV_PARM;
  const vek::LatchWay way =
      (request & SQLO_LATCH_CONDITIONAL) != 0 ? vek::LatchWay::kConditional : vek::LatchWay::kWaits;
  const vek::LatchHold hold(vek::Access::subject(*this, (request & SQLO_LATCH_EXCLUSIVE) != 0, way), nullptr, 0);
  return vek::getSlow(*this, request, hold, nullptr, 0, true);
}

void SQLO_SLATCH_CAS32::releaseConflict() noexcept { vek::releaseLong(*this); }

SqlzZrc SQLO_SLATCH_CAS32::convert(SqloLatchRequest request, const char* file, std::uint32_t line) noexcept {
  if (!vek::isRequest(request)) return SQLO_INV_PARM;
  const bool toExclusive = (request & SQLO_LATCH_EXCLUSIVE) != 0;
  const bool isExclusive = vek::holdsExclusively(*this, toExclusive);
  if (toExclusive && !isExclusive) return vek::upgrade(*this, (request & SQLO_LATCH_CONDITIONAL) != 0, file, line);
  if (!toExclusive && isExclusive) vek::sqloi_downgrade(*this);
  return 0;
}

SqlzZrc SQLO_SLATCH_CAS32::convertConflict(SqloLatchRequest request) noexcept { return convert(request, nullptr, 0); }
