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
  t_latchTable = table;
  if (!threadIsInsideLock()) sqloi_prepareTuning();  // the thread holds no latch yet
  table->closed = sqloi_latchDebugIsOn() ? ~0ULL : 0;
  return table;
}

namespace {

std::uint64_t fileBits(SqloLatchTable& table, const char* file) noexcept {
  SqloLatchTable::FileName& name = latchFileName(table, file);
  if (name.file != file) name = {file, std::uint64_t{regionInternText(file)} << MARK_FILE_SHIFT};
  return name.bits;
}

}  // namespace

LatchHold::LatchHold(const LatchSubject& subject, const char* file, std::uint32_t line) noexcept
    : table_(t_latchTable != nullptr ? t_latchTable : sqloi_makeLatchTable()), subject_(subject) {
  if (table_ != nullptr && table_->closed != 0) sqloi_debugCapture(table_, subject, file, line);
  if (table_ != nullptr && ~table_->used != 0) {
    index_ = static_cast<std::uint32_t>(std::countr_one(table_->used));
    const std::uint64_t mode = subject.isExclusive ? MARK_EXCLUSIVE : 0;
    latchPublish(*table_, index_, subject.latch, subject.flags, mode, fileBits(*table_, file), line);
    if (table_->slot != nullptr) return;  // others see it
  } else if (table_ != nullptr) {
    ++table_->unlisted;
  }
  if (subject.isBetweenProcesses()) regionNoteUntracked();
}

std::uint32_t sqloi_findHold(const SqloLatchTable& table, const void* latch) noexcept {
  for (std::uint64_t left = table.used; left != 0;) {
    const auto index = static_cast<std::uint32_t>(63 - std::countl_zero(left));
    if (isHoldOf(table.page->marks[index], latch)) return index;
    left &= ~(1ULL << index);
  }
  return LATCH_NO_MARK;
}

void sqloi_latchReleased(SqloLatchTable* table, const void* latch, std::uint32_t typeId) noexcept {
  const std::uint32_t index = sqloi_findHold(*table, latch);
  if (index != LATCH_NO_MARK)
    latchWithdraw(*table, index);
  else if (table->unlisted != 0)
    --table->unlisted;
  latchUncount(*table, typeId);
  if (table->hasReports) sqloi_debugReport(table);
}

void sqloi_latchThreadEnds() noexcept {
  sqloi_pageLatchThreadEnds();
  SqloLatchTable* table = t_latchTable;
  if (table == nullptr) return;
  sqloCheckLatchTable(table);
  // What it leaves held is found by those who wait for it.
  if (table->slot != nullptr) table->slot->keeps.store(table->used, std::memory_order_release);
  t_latchTable = nullptr;
  ossUnmapPages(table, LATCH_TABLE_BYTES);
}

void LatchHold::setState(std::uint64_t state) const noexcept {
  if (index_ == LATCH_NO_MARK) return;
  std::atomic<std::uint64_t>& word = table_->page->marks[index_].word;
  word.store((word.load(std::memory_order_relaxed) & ~MARK_STATE) | state, std::memory_order_release);
}

void LatchHold::setSince(std::int64_t monotonicNs) const noexcept {
  if (index_ == LATCH_NO_MARK) return;
  table_->page->since[index_].store(monotonicNs, std::memory_order_relaxed);
  std::atomic<std::uint64_t>& word = table_->page->marks[index_].word;
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
  const std::uint32_t index = table == nullptr ? LATCH_NO_MARK : sqloi_findHold(*table, latch);
  if (index == LATCH_NO_MARK) return;
  std::atomic<std::uint64_t>& word = table->page->marks[index].word;
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

void reportLeakedLatch(const LatchPage& page, std::uint32_t index) noexcept {
  const std::uint64_t word = page.marks[index].word.load(std::memory_order_relaxed);
  const auto* names = static_cast<const RegionNames*>(regionSection(RegionSectionId::kNames));
  const char* file = names == nullptr ? nullptr : regionTextOf(*names, markFile(word));
  (void)pdLogPrintf(0, FID_sqloCheckLatchTable, 0, 20, PD_LEVEL_WARNING,
                    "Latch still held: %s at 0x%016llX, %s, captured in %s line %u", sqloLatchTypeName(markType(word)),
                    static_cast<unsigned long long>(page.marks[index].latch.load(std::memory_order_relaxed)),
                    (word & MARK_EXCLUSIVE) != 0 ? "exclusive" : "shared", textOr(file, "?"), markLine(word));
}

}  // namespace
}  // namespace vek

void sqloCheckLatchTable(const SqloLatchTable* table) noexcept {
  if (table == nullptr) return;
  for (std::uint32_t type = 0; type < SQLO_LATCH_TYPE_COUNT; ++type)
    if (table->entries[type].holdCount != 0) vek::reportLeakedType(table->entries[type], type);
  if (table->page == nullptr) return;
  for (std::uint32_t i = 0; i < vek::LATCH_MARKS; ++i)
    if ((table->used & (1ULL << i)) != 0) vek::reportLeakedLatch(*table->page, i);
}

SqloLatchTable* sqloCurrentLatchTable() noexcept { return vek::t_latchTable; }

void sqloxult_new_track_helper(const void* latch, std::uint32_t typeId) noexcept { vek::latchReleased(latch, typeId); }

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
