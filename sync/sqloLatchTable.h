// The latch tracking table of a thread, and its marks that other processes see.
//
// A capture publishes its mark before it touches the latch and takes it away after it has given the latch back:
//
//     mark ACTIVE -> pin -> take the word -> count the hold        give the word back -> unpin -> mark FREE
//
// so that a thread killed at any instruction in between leaves a mark: the ACTIVE marks of living threads are never
// fewer than the holds of living threads. A thread that goes to sleep on a latch turns its mark to WAITING, and back to
// ACTIVE before each attempt to take the word. The pin keeps the slot of a thread that was killed for whoever takes
// over what it held; there is none without a mark, since nobody would take it away.
//
// The marks lie in the page of the thread's slot in the instance region. A thread without a slot keeps them in its own
// memory, where nobody else sees them; of latches between processes that is noted in the region, because whoever judges
// a dead holder could otherwise take a living one for nobody.
#pragma once

#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>

#include "platform/region.h"
#include "platform/thread.h"
#include "veksys/sync/latch.h"
#include "veksys/sync/latch_control.h"

namespace vek {

// ---- a mark's word ----------------------------------------------------------------------------------------------
//
//   1..0    state: 0 free, 1 active, 2 waiting, 3 spinning: between two attempts
//   2       exclusive
//   3       `since` of the mark tells when
//   15..4   sequence of the mark's captures, to tell one from the next
//   31..16  the latch's flags as SQLO_SLATCH_CAS32 has them: type, between processes
//   47..32  line
//   63..48  number of the file's name (regionTextOf)
inline constexpr std::uint64_t MARK_ACTIVE = 1;
inline constexpr std::uint64_t MARK_WAITING = 2;
inline constexpr std::uint64_t MARK_SPINNING = 3;
inline constexpr std::uint64_t MARK_STATE = 3;
inline constexpr std::uint64_t MARK_EXCLUSIVE = 4;
inline constexpr std::uint64_t MARK_TIMED = 8;
inline constexpr std::uint64_t MARK_SEQUENCE = 0xFFF0;
inline constexpr std::uint64_t MARK_SEQUENCE_STEP = 0x10;
inline constexpr unsigned MARK_FLAGS_SHIFT = 16;
inline constexpr unsigned MARK_LINE_SHIFT = 32;
inline constexpr unsigned MARK_FILE_SHIFT = 48;
inline constexpr std::uint64_t MARK_SHARED_MEMORY = std::uint64_t{SQLO_LATCH_BETWEEN_PROCESSES} << MARK_FLAGS_SHIFT;
static_assert(REGION_NAME_SLOTS <= 0xFFFF && SQLO_LATCH_TYPE_COUNT <= SQLO_LATCH_TYPE_MASK + 1);

constexpr std::uint32_t markType(std::uint64_t word) noexcept {
  return static_cast<std::uint32_t>(word >> MARK_FLAGS_SHIFT) & SQLO_LATCH_TYPE_MASK;
}
constexpr std::uint32_t markLine(std::uint64_t word) noexcept { return (word >> MARK_LINE_SHIFT) & 0xFFFF; }
constexpr std::uint32_t markFile(std::uint64_t word) noexcept {
  return static_cast<std::uint32_t>(word >> MARK_FILE_SHIFT);
}
constexpr std::uint32_t markSequence(std::uint64_t word) noexcept {
  return static_cast<std::uint32_t>((word & MARK_SEQUENCE) / MARK_SEQUENCE_STEP);
}

struct LatchMark {
  std::atomic<std::uint64_t> latch;  // address
  std::atomic<std::uint64_t> word;
};

inline constexpr std::uint32_t LATCH_MARKS = 64;

// What a thread shows of its latches; lies in the page of its slot. The marks are a stack, in which a latch that is
// given back before those captured after it leaves a hole. The two at its ends are never free: below the lowest nothing
// is popped, and where the other one is met the stack is full.
struct LatchPage {
  LatchMark bottom;
  LatchMark marks[LATCH_MARKS];
  LatchMark full;
  std::atomic<std::int64_t> since[LATCH_MARKS];  // monotonic clock
};
static_assert(sizeof(LatchPage) <= REGION_THREAD_PAGE_BYTES);

}  // namespace vek

// ---- the table --------------------------------------------------------------------------------------------------

// One entry per latch type, and what the thread waits for.
struct SqloLatchTable {
  struct Entry {
    std::uint16_t holdCount;
    std::uint16_t line;  // of the last capture, like all that follows
    const char* file;
    const void* latch;
  };
  static_assert(sizeof(Entry) == 24);

  struct Waiting {
    std::uint32_t typeId;
    std::uint32_t line;
    const char* file;
    const void* latch;
  };

  struct FileName {
    const char* file;
    std::uint64_t bits;  // its number, where a mark's word has it
  };

  Entry entries[SQLO_LATCH_TYPE_COUNT];
  Waiting waiting;
  bool isWaiting;
  Waiting savedWaiting;  // the outer one of a wait inside a wait
  bool hasSavedWaiting;

  vek::LatchPage* page;  // the second list, one mark per latch held; null when it is not present
  vek::LatchMark* top;   // the first mark above those in use
  vek::RegionThread* slot;
  std::uint32_t slotIndex;
  std::uint32_t unlisted;  // captures that found no mark free
  bool isChecked;          // debug checks are on, or nobody knows yet: all captures and releases take the long way
  bool isReading;          // the thread is reading the settings of latching
  bool hasReports;         // of those checks, to be written when no latch is held
  FileName fileNames[64];  // of names seen before, by the address of the text
  vek::LatchPage ownPage;  // of a thread without a slot
};
static_assert(sizeof(SqloLatchTable) <= vek::LATCH_TABLE_BYTES);

namespace vek {

// Makes the calling thread's table. Null: there is no memory, or the thread is ending.
SqloLatchTable* sqloi_makeLatchTable() noexcept;

// What the port of a thread's end calls.
void sqloi_latchThreadEnds() noexcept;

enum class LatchWay { kWaits, kConditional, kConverts };

// What a capture is about.
struct LatchSubject {
  const void* latch;
  std::uint32_t flags;  // as SQLO_SLATCH_CAS32 has them
  bool isExclusive;
  bool isShareable = false;  // a SQLO_SLATCH_CAS32
  LatchWay way = LatchWay::kWaits;

  std::uint32_t typeId() const noexcept { return flags & SQLO_LATCH_TYPE_MASK; }
  bool isBetweenProcesses() const noexcept { return (flags & SQLO_LATCH_BETWEEN_PROCESSES) != 0; }
};

// ---- the short way: a table that is there, a mark that is free, a file name seen before --------------------------

inline SqloLatchTable::FileName& latchFileName(SqloLatchTable& table, const char* file) noexcept {
  return table.fileNames[(reinterpret_cast<std::uintptr_t>(file) >> 3) % 64];
}

// A line as 16 bits hold it.
constexpr std::uint16_t latchLine(std::uint32_t line) noexcept {
  return static_cast<std::uint16_t>(line < 0xFFFF ? line : 0xFFFF);
}

inline std::uint64_t latchMarkBit(const SqloLatchTable& table, const LatchMark& mark) noexcept {
  return 1ULL << (&mark - table.page->marks);
}

inline void latchPublish(SqloLatchTable& table, LatchMark& mark, const void* latch, std::uint32_t flags,
                         std::uint64_t mode, std::uint64_t fileBits, std::uint32_t line) noexcept {
  const std::uint64_t sequence = (mark.word.load(std::memory_order_relaxed) + MARK_SEQUENCE_STEP) & MARK_SEQUENCE;
  mark.latch.store(reinterpret_cast<std::uint64_t>(latch), std::memory_order_relaxed);
  mark.word.store(fileBits | (std::uint64_t{latchLine(line)} << MARK_LINE_SHIFT) |
                      (std::uint64_t{flags & 0xFFFF} << MARK_FLAGS_SHIFT) | sequence | mode | MARK_ACTIVE,
                  std::memory_order_release);
  if ((flags & SQLO_LATCH_BETWEEN_PROCESSES) != 0 && table.slot != nullptr)
    table.slot->pins.store(table.slot->pins.load(std::memory_order_relaxed) | latchMarkBit(table, mark),
                           std::memory_order_release);
}

inline bool isFree(const LatchMark& mark) noexcept {
  return (mark.word.load(std::memory_order_relaxed) & MARK_STATE) == 0;
}

// The published mark. Null: take the long way (LatchHold).
inline LatchMark* latchPublishShortly(SqloLatchTable* table, const void* latch, std::uint32_t flags, std::uint64_t mode,
                                      const char* file, std::uint32_t line) noexcept {
  if (table == nullptr) [[unlikely]]
    return nullptr;
  LatchMark* mark = table->top;
  const SqloLatchTable::FileName& name = latchFileName(*table, file);
  if (name.file != file || !isFree(*mark)) [[unlikely]]
    return nullptr;
  if ((flags & SQLO_LATCH_BETWEEN_PROCESSES) != 0 && table->slot == nullptr) [[unlikely]]
    return nullptr;  // nobody would see the mark
  table->top = mark + 1;
  latchPublish(*table, *mark, latch, flags, mode, name.bits, line);
  return mark;
}

// The latch is held: counts it.
inline void latchCount(SqloLatchTable& table, const void* latch, std::uint32_t flags, const char* file,
                       std::uint32_t line) noexcept {
  const std::uint32_t typeId = flags & SQLO_LATCH_TYPE_MASK;
  SqloLatchTable::Entry& entry = table.entries[typeId < SQLO_LATCH_TYPE_COUNT ? typeId : 0];
  entry.line = latchLine(line);
  entry.file = file;
  entry.latch = latch;
  ++entry.holdCount;
}

inline void latchUncount(SqloLatchTable& table, std::uint32_t typeId) noexcept {
  std::uint16_t& count = table.entries[typeId < SQLO_LATCH_TYPE_COUNT ? typeId : 0].holdCount;
  count = static_cast<std::uint16_t>(count - (count != 0 ? 1 : 0));
}

// Nobody but the thread itself takes its marks away while it lives.
inline void latchWithdraw(SqloLatchTable& table, LatchMark& mark) noexcept {
  const std::uint64_t word = mark.word.load(std::memory_order_relaxed);
  if ((word & MARK_SHARED_MEMORY) != 0 && table.slot != nullptr)
    table.slot->pins.store(table.slot->pins.load(std::memory_order_relaxed) & ~latchMarkBit(table, mark),
                           std::memory_order_release);
  mark.word.store(word & ~MARK_STATE, std::memory_order_release);
  while (isFree(table.top[-1])) --table.top;
}

inline bool isHoldOf(const LatchMark& mark, const void* latch) noexcept {
  return mark.latch.load(std::memory_order_relaxed) == reinterpret_cast<std::uint64_t>(latch) &&
         (mark.word.load(std::memory_order_relaxed) & MARK_STATE) == MARK_ACTIVE;
}

// The thread's newest hold of a latch, or null.
LatchMark* sqloi_findHold(const SqloLatchTable& table, const void* latch) noexcept;

// The mark of a latch that is about to be given back when it is the one captured last, as most often. Null: take the
// long way. The mark tells all that is to be known of the latch: reading the latch itself would fetch its line once
// more.
inline LatchMark* latchNewest(SqloLatchTable* table, const void* latch) noexcept {
  if (table == nullptr || table->isChecked || !isHoldOf(table->top[-1], latch)) [[unlikely]]
    return nullptr;
  return &table->top[-1];
}

// The latch of a mark has been given back.
inline void latchReleased(SqloLatchTable& table, LatchMark& mark) noexcept {
  const std::uint32_t typeId = markType(mark.word.load(std::memory_order_relaxed));
  latchWithdraw(table, mark);
  latchUncount(table, typeId);
}

// A latch of the calling thread's has been given back, whichever it is; `flags` as SQLO_SLATCH_CAS32 has them.
void sqloi_latchReleased(const void* latch, std::uint32_t flags) noexcept;

// Whether every hold of such a latch that a thread may have at this moment has a mark that this process sees. If not,
// nobody can tell whether a holder is dead.
bool sqloi_allHoldsAreMarked(bool isBetweenProcesses) noexcept;

// ---- the long way -----------------------------------------------------------------------------------------------

// One capture on its way, from the mark to the hold. Lives on the stack of the capturing function.
class LatchHold {
 public:
  // Publishes the mark, making the table or interning the file's name before if need be.
  LatchHold(const LatchSubject& subject, const char* file, std::uint32_t line) noexcept;

  // Goes on with a mark that the short way has published.
  LatchHold(SqloLatchTable* table, LatchMark* mark, const LatchSubject& subject) noexcept
      : table_(table), mark_(mark), subject_(subject) {}

  // The latch is held: counts it.
  void granted(const char* file, std::uint32_t line) const noexcept {
    if (table_ != nullptr) latchCount(*table_, subject_.latch, subject_.flags, file, line);
  }

  // The capture is given up.
  void cancelled() const noexcept;

  // The thread goes to sleep on the latch; it lets some time pass without lining up; it is about to try again.
  void sleeps() const noexcept { setState(MARK_WAITING); }
  void spins() const noexcept { setState(MARK_SPINNING); }
  void tries() const noexcept { setState(MARK_ACTIVE); }

  // From now on the mark tells since when.
  void setSince(std::int64_t monotonicNs) const noexcept;

  // Notes what the thread waits for, keeping what it already waits for; takes the note away.
  void beginWaiting(const char* file, std::uint32_t line) const noexcept;
  void endWaiting() const noexcept;

  // The thread's hold changed its mode.
  static void changeMode(const void* latch, bool toExclusive) noexcept;

 private:
  void setState(std::uint64_t state) const noexcept;

  SqloLatchTable* table_;
  LatchMark* mark_ = nullptr;
  LatchSubject subject_;
};

}  // namespace vek
