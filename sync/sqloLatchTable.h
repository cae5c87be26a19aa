// The latch tracking table of a thread, and its marks that other processes see.
//
// A capture publishes its mark before it touches the latch and takes it away after it has given the latch back:
//
//     mark ACTIVE -> take the word -> count the hold        give the word back -> mark FREE
//
// so that a thread killed at any instruction in between leaves a mark: the ACTIVE marks of living threads are never
// fewer than the holds of living threads. A thread that goes to sleep on a latch turns its mark to WAITING, and back to
// ACTIVE before each attempt to take the word.
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
//   1..0    state: 0 free, 1 active, 2 waiting
//   2       exclusive
//   3       the latch is between processes
//   4       `since` of the mark tells when
//   15..5   latch type
//   31..16  line
//   45..32  number of the file's name (regionTextOf)
//   63..46  sequence of the thread's captures, to tell one from the next
inline constexpr std::uint64_t MARK_ACTIVE = 1;
inline constexpr std::uint64_t MARK_WAITING = 2;
inline constexpr std::uint64_t MARK_STATE = 3;
inline constexpr std::uint64_t MARK_EXCLUSIVE = 4;
inline constexpr std::uint64_t MARK_SHARED_MEMORY = 8;
inline constexpr std::uint64_t MARK_TIMED = 16;
inline constexpr unsigned MARK_TYPE_SHIFT = 5;
inline constexpr unsigned MARK_LINE_SHIFT = 16;
inline constexpr unsigned MARK_FILE_SHIFT = 32;
inline constexpr unsigned MARK_SEQUENCE_SHIFT = 46;
inline constexpr std::uint64_t MARK_FILE_MASK = 0x3FFF;
static_assert(REGION_NAME_SLOTS <= MARK_FILE_MASK && SQLO_LATCH_TYPE_COUNT <= 2048);

constexpr std::uint32_t markType(std::uint64_t word) noexcept { return (word >> MARK_TYPE_SHIFT) & 0x7FF; }
constexpr std::uint32_t markLine(std::uint64_t word) noexcept { return (word >> MARK_LINE_SHIFT) & 0xFFFF; }
constexpr std::uint32_t markFile(std::uint64_t word) noexcept {
  return static_cast<std::uint32_t>((word >> MARK_FILE_SHIFT) & MARK_FILE_MASK);
}

struct LatchMark {
  std::atomic<std::uint64_t> latch;  // address
  std::atomic<std::uint64_t> word;
};

inline constexpr std::uint32_t LATCH_MARKS = 64;
inline constexpr std::uint32_t LATCH_NO_MARK = LATCH_MARKS;

// What a thread shows of its latches; lies in the page of its slot.
struct LatchPage {
  LatchMark marks[LATCH_MARKS];
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
    std::uint64_t number;
  };

  Entry entries[SQLO_LATCH_TYPE_COUNT];
  Waiting waiting;
  bool isWaiting;
  Waiting savedWaiting;  // the outer one of a wait inside a wait
  bool hasSavedWaiting;

  vek::LatchPage* page;  // the second list, one mark per latch held; null when it is not present
  vek::RegionThread* slot;
  std::uint32_t slotIndex;
  std::uint32_t unlisted;  // captures that found no mark free
  std::uint64_t used;      // which marks
  std::uint64_t sequence;
  bool hasReports;         // of the debug checks, to be written when no latch is held
  FileName fileNames[64];  // numbers of names seen before, by the address of the text
  vek::LatchPage ownPage;  // of a thread without a slot
};
static_assert(sizeof(SqloLatchTable) <= vek::LATCH_TABLE_BYTES);

namespace vek {

// Debug checks are on (sqloLatchDebug.h).
extern std::atomic<bool> g_latchDebug;

// Makes the calling thread's table. Null: there is no memory, or the thread is ending.
SqloLatchTable* sqloi_makeLatchTable() noexcept;

// The number of a file's name that is not among the last ones seen.
std::uint64_t sqloi_fileNumber(SqloLatchTable* table, const char* file) noexcept;

// A capture without a mark: the list has no room, or the thread has no table (null).
void sqloi_noteUnlisted(SqloLatchTable* table, bool isBetweenProcesses) noexcept;

// What the port of a thread's end calls.
void sqloi_latchThreadEnds() noexcept;

enum class LatchWay { kWaits, kConditional, kConverts };

// What a capture is about: the latch, and how its mark looks.
struct LatchSubject {
  const void* latch;
  std::uint32_t typeId;
  bool isBetweenProcesses;
  bool isExclusive;
  bool isShareable = false;  // a SQLO_SLATCH_CAS32
  LatchWay way = LatchWay::kWaits;
};

// One capture on its way, from the mark to the hold. Lives on the stack of the capturing function.
class LatchHold {
 public:
  LatchHold(const LatchSubject& subject, const char* file, std::uint32_t line) noexcept
      : table_(t_latchTable), typeId_(subject.typeId < SQLO_LATCH_TYPE_COUNT ? subject.typeId : 0) {
    if (table_ == nullptr) [[unlikely]]
      table_ = sqloi_makeLatchTable();
    if (table_ != nullptr) [[likely]]
      publish(subject, file, line);
    else
      sqloi_noteUnlisted(nullptr, subject.isBetweenProcesses);
  }

  // The latch is held: counts it.
  void granted(const void* latch, const char* file, std::uint32_t line) const noexcept {
    if (table_ == nullptr) [[unlikely]]
      return;
    SqloLatchTable::Entry& entry = table_->entries[typeId_];
    entry.line = static_cast<std::uint16_t>(line);
    entry.file = file;
    entry.latch = latch;
    ++entry.holdCount;
  }

  // The capture is given up.
  void cancelled() const noexcept {
    if (table_ != nullptr) withdraw(table_, index_);
  }

  // The thread goes to sleep on the latch; it is about to try again.
  void sleeps() noexcept { setState(MARK_WAITING); }
  void tries() noexcept { setState(MARK_ACTIVE); }

  // From now on the mark tells since when.
  void setSince(std::int64_t monotonicNs) noexcept;

  // Notes what the thread waits for, keeping what it already waits for; takes the note away.
  void beginWaiting(const void* latch, const char* file, std::uint32_t line) const noexcept;
  void endWaiting() const noexcept;

  // The thread's hold changed its mode.
  static void changeMode(const void* latch, bool toExclusive) noexcept;

  // A latch of the thread's has been given back.
  static void released(const void* latch, std::uint32_t typeId) noexcept {
    SqloLatchTable* table = t_latchTable;
    if (table == nullptr) [[unlikely]]
      return;
    const std::uint32_t index = find(*table, latch);
    if (index == LATCH_NO_MARK) [[unlikely]]
      releasedUnlisted(table);
    else
      withdraw(table, index);
    std::uint16_t& count = table->entries[typeId < SQLO_LATCH_TYPE_COUNT ? typeId : 0].holdCount;
    count = static_cast<std::uint16_t>(count - (count != 0 ? 1 : 0));
    if (table->hasReports) [[unlikely]]
      writeReports(table);
  }

  // The thread's newest mark of a latch that says ACTIVE, or LATCH_NO_MARK.
  static std::uint32_t find(const SqloLatchTable& table, const void* latch) noexcept {
    const auto address = reinterpret_cast<std::uint64_t>(latch);
    for (std::uint64_t used = table.used; used != 0;) {
      const auto index = static_cast<std::uint32_t>(63 - std::countl_zero(used));
      const LatchMark& mark = table.page->marks[index];
      if (mark.latch.load(std::memory_order_relaxed) == address &&
          (mark.word.load(std::memory_order_relaxed) & MARK_STATE) == MARK_ACTIVE)
        return index;
      used &= ~(1ULL << index);
    }
    return LATCH_NO_MARK;
  }

  SqloLatchTable* table() const noexcept { return table_; }
  std::uint32_t index() const noexcept { return index_; }

 private:
  void publish(const LatchSubject& subject, const char* file, std::uint32_t line) noexcept {
    if (g_latchDebug.load(std::memory_order_relaxed)) [[unlikely]]
      checkOrder(subject, file, line);
    const std::uint64_t used = table_->used;
    if (~used == 0) [[unlikely]]
      return sqloi_noteUnlisted(table_, subject.isBetweenProcesses);
    index_ = static_cast<std::uint32_t>(std::countr_one(used));
    table_->used = used | (1ULL << index_);
    const std::uint64_t word = MARK_ACTIVE | (subject.isExclusive ? MARK_EXCLUSIVE : 0) |
                               (subject.isBetweenProcesses ? MARK_SHARED_MEMORY : 0) |
                               (std::uint64_t{typeId_} << MARK_TYPE_SHIFT) |
                               (std::uint64_t{line & 0xFFFF} << MARK_LINE_SHIFT) |
                               (fileNumber(file) << MARK_FILE_SHIFT) | (table_->sequence++ << MARK_SEQUENCE_SHIFT);
    if (subject.isBetweenProcesses) pin(table_, index_);
    LatchMark& mark = table_->page->marks[index_];
    mark.latch.store(reinterpret_cast<std::uint64_t>(subject.latch), std::memory_order_relaxed);
    mark.word.store(word, std::memory_order_release);
  }

  std::uint64_t fileNumber(const char* file) const noexcept {
    const SqloLatchTable::FileName& name = table_->fileNames[(reinterpret_cast<std::uintptr_t>(file) >> 3) % 64];
    return name.file == file ? name.number : sqloi_fileNumber(table_, file);
  }

  void setState(std::uint64_t state) const noexcept;

  static void pin(SqloLatchTable* table, std::uint32_t index) noexcept {
    if (table->slot == nullptr) return;
    const std::uint64_t pins = table->slot->pins.load(std::memory_order_relaxed);
    table->slot->pins.store(pins | (1ULL << index), std::memory_order_relaxed);
  }

  // Nobody but the thread itself takes its marks away while it lives.
  static void withdraw(SqloLatchTable* table, std::uint32_t index) noexcept {
    if (index == LATCH_NO_MARK) return;
    LatchMark& mark = table->page->marks[index];
    const std::uint64_t word = mark.word.load(std::memory_order_relaxed);
    mark.word.store(word & ~MARK_STATE, std::memory_order_release);
    if ((word & MARK_SHARED_MEMORY) != 0 && table->slot != nullptr) {
      const std::uint64_t pins = table->slot->pins.load(std::memory_order_relaxed);
      table->slot->pins.store(pins & ~(1ULL << index), std::memory_order_release);
    }
    table->used &= ~(1ULL << index);
  }

  static void releasedUnlisted(SqloLatchTable* table) noexcept;
  static void checkOrder(const LatchSubject& subject, const char* file, std::uint32_t line) noexcept;
  static void writeReports(SqloLatchTable* table) noexcept;

  SqloLatchTable* table_;
  std::uint32_t typeId_;
  std::uint32_t index_ = LATCH_NO_MARK;
};

}  // namespace vek
