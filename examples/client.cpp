#include "client.h"

#include <veksys/codes.h>
#include <veksys/diag/trace_scope.h>

#include <algorithm>
#include <cstring>
#include <tuple>

#include "functions.h"

namespace demo {

Outcome Client::run() {
  SqltTraceScope<FID_runClient> trace;
  outcome_.workers.resize(engine_.workers().size());
  loadFile();
  if (outcome_.requestsLost == 0 && outcome_.readCode == 0) verifyPackages();
  outcome_.linesRead = reader_.linesRead();
  outcome_.bytesRead = reader_.bytesRead();
  trace.exit(outcome_.shown.area.sqlerrd[0]);
  return std::move(outcome_);
}

void Client::loadFile() {
  SqltTraceScope<FID_loadFile> trace;
  Block block;
  while ((outcome_.readCode = reader_.readBlock(&block)) == 0 && !block.text.empty()) {
    Slot& slot = newRequest(RequestKind::kLoad);
    slot.request.cut = block.cut;
    slot.request.firstLine = block.firstLine;
    slot.request.textBytes = block.text.size();
    std::memcpy(slot.text, block.text.data(), block.text.size());
    engine_.submit(slot, kAnyWorker);
  }
  finishAll();
  trace.exit(outcome_.readCode);
}

// Each block is verified by the worker that keeps its packages.
void Client::verifyPackages() {
  SqltTraceScope<FID_verifyPackages> trace;
  for (const LoadedBlock& block : loaded_) {
    Slot& slot = newRequest(RequestKind::kVerify);
    slot.request.block = block.number;
    engine_.submit(slot, block.worker);
  }
  finishAll();
  outcome_.verified = outcome_.requestsLost == 0 ? Verified::kAll : Verified::kPart;
}

// A slot with a new request in it; waits for replies while there is none free.
Slot& Client::newRequest(RequestKind kind) {
  Slot* slot;
  while ((slot = engine_.freeSlot()) == nullptr) finishRequest(*engine_.awaitReply());
  slot->request = {};
  slot->request.number = ++lastNumber_;
  slot->request.kind = kind;
  return *slot;
}

void Client::finishAll() {
  while (Slot* slot = engine_.awaitReply()) finishRequest(*slot);
}

void Client::finishRequest(Slot& slot) {
  SqltTraceScope<FID_finishRequest> trace;
  const SqlzZrc code = slot.reply.area.sqlerrd[0];
  const bool lost = code == SQLE_AGENT_PARTNER_PART_DOWN || code == SQLE_SUBAGENTS_EXHAUSTED;
  if (lost)
    ++outcome_.requestsLost;
  else if (slot.request.kind == RequestKind::kLoad)
    loaded_.push_back({slot.request.number, engine_.workerOf(slot)});
  addTotals(slot);
  addToShown(slot);
  engine_.release(slot);
  trace.exit(code);
}

void Client::addTotals(const Slot& slot) {
  const Reply& reply = slot.reply;
  ++outcome_.requests;
  outcome_.requestsWithError += reply.area.sqlcode < 0 ? 1U : 0U;
  outcome_.requestsWithWarning += reply.area.sqlcode > 0 ? 1U : 0U;
  outcome_.stanzas += reply.stanzas;
  outcome_.packages += reply.packages;
  outcome_.installedKib += reply.installedKib;
  mergeFindings(outcome_.findings, reply.findings);
  for (std::uint32_t i = 0; i < reply.sectionCount; ++i) {
    SectionTotal& total = outcome_.sections[reply.sections[i].name];
    total.packages += reply.sections[i].packages;
    total.installedKib += reply.sections[i].installedKib;
  }
  if (engine_.workerOf(slot) == kAnyWorker) return;
  WorkerTotal& worker = outcome_.workers[engine_.workerOf(slot) - 1];
  ++worker.requests;
  worker.stanzas += reply.stanzas;
  worker.busyNs += reply.busyNs;
  worker.poolPeakBytes = std::max(worker.poolPeakBytes, reply.poolPeakBytes);
}

void Client::addToShown(const Slot& slot) {
  const auto rank = [](const sqlca& area, std::uint32_t number) {
    return std::tuple(area.sqlcode<0, area.sqlcode> 0, number);
  };
  ShownReply& shown = outcome_.shown;
  if (rank(slot.reply.area, slot.request.number) <= rank(shown.area, shown.number)) return;
  shown = {slot.request.number, slot.request.kind, slot.reply.area};
}

}  // namespace demo
