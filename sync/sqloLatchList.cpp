// The list of holds and waits of an instance.
#include "diag/base/traced.h"
#include "platform/osse.h"
#include "sync/sqloLatchMarks.h"
#include "veksys/codes.h"
#include "veksys/sync/latch_list.h"

namespace vek {
namespace {

void describe(const LatchMarkSeen& mark, SqloLatchEntry* out) noexcept {
  const auto& thread = static_cast<const RegionThread*>(regionSection(RegionSectionId::kThreads))[mark.slot];
  const auto* page = static_cast<const LatchPage*>(regionThreadPageOf(mark.slot));
  const char* file =
      regionTextOf(*static_cast<const RegionNames*>(regionSection(RegionSectionId::kNames)), markFile(mark.word));
  *out = {};
  out->latch = mark.latch;
  out->processId = thread.processId;
  out->threadId = thread.threadId;
  ossCopyText(out->processName, sizeof out->processName, thread.processName);
  ossCopyText(out->threadName, sizeof out->threadName, thread.name);
  out->state = (mark.word & MARK_STATE) == MARK_ACTIVE ? SQLO_LATCH_ENTRY_HELD : SQLO_LATCH_ENTRY_WAITING;
  out->request = (mark.word & MARK_EXCLUSIVE) != 0 ? SQLO_LATCH_EXCLUSIVE : SQLO_LATCH_SHARED;
  out->typeId = markType(mark.word);
  out->line = markLine(mark.word);
  if (file != nullptr) ossCopyText(out->file, sizeof out->file, file);
  out->isBetweenProcesses = (mark.word & MARK_SHARED_MEMORY) != 0;
  out->processIsDead = mark.processIsDead;
  out->threadHasEnded = mark.threadHasEnded;
  out->hasSince = (mark.word & MARK_TIMED) != 0;
  if (out->hasSince != 0) out->sinceNs = page->since[mark.index].load(std::memory_order_relaxed);
  out->sequence = markSequence(mark.word);
  out->owner = mark.owner;
}

}  // namespace
}  // namespace vek

SqlzZrc sqloListLatches(SqloLatchEntry* entries, std::size_t room, std::size_t* count) noexcept {
  vek::VekTrace<vek::FID_sqloListLatches> trace;
  if (count == nullptr) return trace.exit(SQLO_INV_PARM);
  *count = 0;
  const SqlzZrc attached = vek::regionAttach();
  if (attached != 0) return trace.exit(attached);
  vek::LivingProcesses processes;
  vek::visitMarks(processes, [&](const vek::LatchMarkSeen& mark) {
    if (mark.processIsDead && (mark.word & vek::MARK_SHARED_MEMORY) == 0) return;  // gone with its memory
    if (*count < room) vek::describe(mark, &entries[*count]);
    ++*count;
  });
  return trace.exit(vek::regionSharedStatus());
}
