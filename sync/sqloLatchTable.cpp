#include "sync/sqloLatchTable.h"

#include "platform/library_mutex.h"
#include "platform/osse.h"
#include "sync/sqloLatchDebug.h"
#include "sync/sqloLatchTuning.h"
#include "sync/sqloPageLatchTracking.h"
#include "veksys/diag/log.h"
#include "veksys_functions.h"

namespace vek {

namespace {

void usePages(SqloLatchTable* table) noexcept {
  ThreadState* self = threadSelf();
  table->slotIndex = self == nullptr ? REGION_NO_SLOT : self->threadSlot;
  void* page = table->slotIndex == REGION_NO_SLOT ? nullptr : regionThreadPage(table->slotIndex);
  if (page == nullptr) {
    table->page = &table->ownPage;
    return;
  }
  table->page = static_cast<LatchPage*>(page);
  table->slot = static_cast<RegionThread*>(regionSection(RegionSectionId::kThreads)) + table->slotIndex;
}

}  // namespace

SqloLatchTable* sqloi_makeLatchTable() noexcept {
  const ErrnoKept kept;
  if (threadSelf() == nullptr) return nullptr;
  static_assert(alignof(SqloLatchTable) <= 4096);
  auto* table = static_cast<SqloLatchTable*>(ossMapPages(LATCH_TABLE_BYTES));
  if (table == nullptr) return nullptr;
  usePages(table);
  table->page->bottom.word.store(MARK_ACTIVE, std::memory_order_relaxed);
  table->page->full.word.store(MARK_ACTIVE, std::memory_order_relaxed);
  table->top = table->page->marks;
  table->fileNames[0].file = reinterpret_cast<const char*>(table);  // no file: a capture without one takes the long way
  table->isChecked = true;
  t_latchTable = table;
  return table;
}

namespace {

// Reads the settings for a capture of a thread that has nothing locked. What captures the reading makes go unchecked.
void readSettings(SqloLatchTable* table) noexcept {
  const ErrnoKept kept;
  table->isReading = true;
  sqloi_prepareTuning();
  sqloi_readLatchDebug();
  table->isReading = false;
}

bool hasNothingLocked(const SqloLatchTable& table) noexcept {
  return table.top == table.page->marks && table.unlisted == 0 && !threadIsInsideLock();
}

// Whether the debug checks are on. Once they are known to be off the thread's captures may take the short way.
bool decideChecks(SqloLatchTable* table) noexcept {
  if (sqloi_latchDebug() == LatchDebug::kUnknown && !table->isReading && hasNothingLocked(*table)) readSettings(table);
  const LatchDebug checks = sqloi_latchDebug();
  table->isChecked = checks != LatchDebug::kOff;
  return checks == LatchDebug::kOn;
}

std::uint64_t fileBits(SqloLatchTable& table, const char* file) noexcept {
  SqloLatchTable::FileName& name = latchFileName(table, file);
  if (name.file == file && file != nullptr) return name.bits;
  const std::uint64_t bits = file == nullptr ? 0 : std::uint64_t{regionInternText(file)} << MARK_FILE_SHIFT;
  if (!table.isChecked) name = {file, bits};  // else captures would not come this way
  return bits;
}

// Holds of this process without a mark. Those between processes are counted in the region.
constinit std::atomic<std::uint32_t> g_unmarkedHere{0};

void takeUnmarked(bool isBetweenProcesses) noexcept {
  if (isBetweenProcesses) return regionTakeUntracked();
  g_unmarkedHere.fetch_add(1, std::memory_order_acq_rel);
}

void giveBackUnmarked(bool isBetweenProcesses) noexcept {
  if (isBetweenProcesses) {
    if (regionHasUntracked()) regionGiveBackUntracked();
  } else if (g_unmarkedHere.load(std::memory_order_acquire) != 0) {
    g_unmarkedHere.fetch_sub(1, std::memory_order_acq_rel);
  }
}

// The first free mark, in a hole when the stack is full. Null: there is none.
LatchMark* freeMark(SqloLatchTable& table) noexcept {
  if (isFree(*table.top)) return table.top++;
  for (LatchMark& mark : table.page->marks)
    if (isFree(mark)) return &mark;
  return nullptr;
}

}  // namespace

LatchHold::LatchHold(const LatchSubject& subject, const char* file, std::uint32_t line) noexcept
    : table_(t_latchTable != nullptr ? t_latchTable : sqloi_makeLatchTable()), subject_(subject) {
  if (table_ != nullptr) {
    if (table_->isChecked && decideChecks(table_)) sqloi_debugCapture(table_, subject, file, line);
    const bool othersSeeIt = !subject.isBetweenProcesses() || table_->slot != nullptr;
    if (othersSeeIt) mark_ = freeMark(*table_);
    if (mark_ == nullptr) ++table_->unlisted;
  }
  if (mark_ != nullptr)
    latchPublish(*table_, *mark_, subject.latch, subject.flags, subject.isExclusive ? MARK_EXCLUSIVE : 0,
                 fileBits(*table_, file), line);
  else
    takeUnmarked(subject.isBetweenProcesses());
}

void LatchHold::cancelled() const noexcept {
  if (mark_ != nullptr) return latchWithdraw(*table_, *mark_);
  if (table_ != nullptr) --table_->unlisted;
  giveBackUnmarked(subject_.isBetweenProcesses());
}

LatchMark* sqloi_findHold(const SqloLatchTable& table, const void* latch) noexcept {
  for (LatchMark* mark = table.top; mark-- != table.page->marks;)
    if (isHoldOf(*mark, latch)) return mark;
  return nullptr;
}

void sqloi_latchReleased(const void* latch, std::uint32_t flags) noexcept {
  const bool isBetweenProcesses = (flags & SQLO_LATCH_BETWEEN_PROCESSES) != 0;
  SqloLatchTable* table = t_latchTable;
  if (table == nullptr) return giveBackUnmarked(isBetweenProcesses);
  if (LatchMark* mark = sqloi_findHold(*table, latch); mark != nullptr) {
    latchWithdraw(*table, *mark);
  } else if (table->unlisted != 0) {
    --table->unlisted;
    giveBackUnmarked(isBetweenProcesses);
  }
  latchUncount(*table, flags & SQLO_LATCH_TYPE_MASK);
  if (table->hasReports && table->top == table->page->marks) sqloi_debugReport(table);
}

bool sqloi_allHoldsAreMarked(bool isBetweenProcesses) noexcept {
  return isBetweenProcesses ? !regionHasUntracked() : g_unmarkedHere.load(std::memory_order_acquire) == 0;
}

namespace {

std::uint64_t marksInUse(const SqloLatchTable& table) noexcept {
  std::uint64_t bits = 0;
  for (LatchMark& mark : table.page->marks)
    if (!isFree(mark)) bits |= latchMarkBit(table, mark);
  return bits;
}

}  // namespace

void sqloi_latchThreadEnds() noexcept {
  sqloi_pageLatchThreadEnds();
  SqloLatchTable* table = t_latchTable;
  if (table == nullptr) return;
  sqloCheckLatchTable(table);
  // What it leaves held is found by those who wait for it.
  if (table->slot != nullptr) table->slot->keeps.store(marksInUse(*table), std::memory_order_release);
  t_latchTable = nullptr;
  ossUnmapPages(table, LATCH_TABLE_BYTES);
}

void LatchHold::setState(std::uint64_t state) const noexcept {
  if (mark_ == nullptr) return;
  std::atomic<std::uint64_t>& word = mark_->word;
  word.store((word.load(std::memory_order_relaxed) & ~MARK_STATE) | state, std::memory_order_release);
}

void LatchHold::setSince(std::int64_t monotonicNs) const noexcept {
  if (mark_ == nullptr) return;
  table_->page->since[mark_ - table_->page->marks].store(monotonicNs, std::memory_order_relaxed);
  std::atomic<std::uint64_t>& word = mark_->word;
  word.store(word.load(std::memory_order_relaxed) | MARK_TIMED, std::memory_order_release);
}

void LatchHold::beginWaiting(const char* file, std::uint32_t line) const noexcept {
  if (table_ == nullptr) return;
  if (table_->isWaiting) {
    table_->savedWaiting = table_->waiting;
    table_->hasSavedWaiting = true;
  }
  table_->waiting = {subject_.typeId(), line, file, subject_.latch};
  table_->isWaiting = true;
}

void LatchHold::endWaiting() const noexcept {
  if (table_ == nullptr) return;
  table_->isWaiting = table_->hasSavedWaiting;
  if (table_->hasSavedWaiting) table_->waiting = table_->savedWaiting;
  table_->hasSavedWaiting = false;
}

void LatchHold::changeMode(const void* latch, bool toExclusive) noexcept {
  SqloLatchTable* table = t_latchTable;
  LatchMark* mark = table == nullptr ? nullptr : sqloi_findHold(*table, latch);
  if (mark == nullptr) return;
  std::atomic<std::uint64_t>& word = mark->word;
  const std::uint64_t now = word.load(std::memory_order_relaxed);
  word.store(toExclusive ? now | MARK_EXCLUSIVE : now & ~MARK_EXCLUSIVE, std::memory_order_release);
}

namespace {

const char* textOr(const char* text, const char* otherwise) noexcept { return text == nullptr ? otherwise : text; }

void reportLeakedType(const SqloLatchTable::Entry& entry, std::uint32_t typeId) noexcept {
  (void)pdLogPrintf(0, FID_sqloCheckLatchTable, 0, 10, PD_LEVEL_WARNING,
                    "Latch leaked on EDU termination: File %s : Line %d (Identity: %d) HoldCount: %hu",
                    textOr(entry.file, ""), entry.line, static_cast<int>(typeId), entry.holdCount);
}

void reportLeakedLatch(const LatchMark& mark) noexcept {
  const std::uint64_t word = mark.word.load(std::memory_order_relaxed);
  const auto* names = static_cast<const RegionNames*>(regionSection(RegionSectionId::kNames));
  const char* file = names == nullptr ? nullptr : regionTextOf(*names, markFile(word));
  (void)pdLogPrintf(0, FID_sqloCheckLatchTable, 0, 20, PD_LEVEL_WARNING,
                    "Latch still held: %s at 0x%016llX, %s, captured in %s line %u", sqloLatchTypeName(markType(word)),
                    static_cast<unsigned long long>(mark.latch.load(std::memory_order_relaxed)),
                    (word & MARK_EXCLUSIVE) != 0 ? "exclusive" : "shared", textOr(file, "?"), markLine(word));
}

}  // namespace
}  // namespace vek

void sqloCheckLatchTable(const SqloLatchTable* table) noexcept {
  if (table == nullptr) return;
  for (std::uint32_t type = 0; type < SQLO_LATCH_TYPE_COUNT; ++type)
    if (table->entries[type].holdCount != 0) vek::reportLeakedType(table->entries[type], type);
  if (table->page == nullptr) return;
  for (const vek::LatchMark& mark : table->page->marks)
    if (!vek::isFree(mark)) vek::reportLeakedLatch(mark);
}

SqloLatchTable* sqloCurrentLatchTable() noexcept { return vek::t_latchTable; }

void sqloxult_new_track_helper(const void* latch, std::uint32_t typeId) noexcept {
  vek::sqloi_latchReleased(latch, typeId);
}

std::uint32_t sqloLatchHoldCount(std::uint32_t typeId, const char** file, std::uint32_t* line,
                                 const void** latch) noexcept {
  const SqloLatchTable* table = vek::t_latchTable;
  SqloLatchTable::Entry entry = {};
  if (table != nullptr && typeId < SQLO_LATCH_TYPE_COUNT) entry = table->entries[typeId];
  if (file != nullptr) *file = entry.file;
  if (line != nullptr) *line = entry.line;
  if (latch != nullptr) *latch = entry.latch;
  return entry.holdCount;
}
