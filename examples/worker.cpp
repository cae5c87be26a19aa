#include "worker.h"

#include <sys/socket.h>
#include <veksys/diag/trace_scope.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include "functions.h"
#include "host.h"
#include "memory.h"
#include "package.h"
#include "verify.h"

namespace demo {
namespace {

using Clock = std::chrono::steady_clock;
using Packages = std::pmr::vector<Package>;

// The row of a section, a new one if need be. When the table is full the last row takes all others.
SectionRow& sectionRow(Reply& reply, std::string_view section) noexcept {
  section = section.substr(0, sizeof reply.sections[0].name - 1);
  for (std::uint32_t i = 0; i < reply.sectionCount; ++i)
    if (section == reply.sections[i].name) return reply.sections[i];
  if (reply.sectionCount == kSectionRows) return reply.sections[kSectionRows - 1];
  SectionRow& row = reply.sections[reply.sectionCount++];
  if (reply.sectionCount == kSectionRows) section = "(other)";
  std::copy(section.begin(), section.end(), row.name);
  return row;
}

// The state that the threads of one worker process share.
class Worker {
 public:
  Worker(const WorkerSetup& setup, WorkerMemory& memory) noexcept
      : setup_(setup), memory_(memory), index_(setup.index) {}

  // One thread: takes a slot, serves it, sends it back.
  void runThread(unsigned thread) {
    const EngineUnit unit(workerUnit(setup_.number, thread),
                          "worker-" + std::to_string(setup_.number) + "." + std::to_string(thread));
    SqltTraceScope<FID_runThread> trace;
    std::uint32_t slot;
    while (receive(&slot)) {
      serve(setup_.slots[slot]);
      ::send(setup_.socket, &slot, sizeof slot, MSG_NOSIGNAL);
    }
  }

 private:
  // False when the coordinator has nothing more to say.
  bool receive(std::uint32_t* slot) const noexcept {
    ssize_t count;
    do count = ::recv(setup_.socket, slot, sizeof *slot, 0);
    while (count < 0 && errno == EINTR);
    return count == sizeof *slot && *slot < setup_.slotCount;
  }

  SqlzZrc serve(Slot& slot) {
    SqltTraceScope<FID_serveRequest> trace;
    if ((sqltTraceWord(SQLE) & SQLT_TRACE_DATA) != 0) pdtCorrelator(FID_serveRequest, 1, slot.request.number);
    trace.data(2, slot.request.block, slot.request.firstLine, slot.request.textBytes);
    const auto begin = Clock::now();
    slot.reply = {};
    sqlzInitSqlca(&slot.reply.area);
    if (slot.request.kind == RequestKind::kLoad)
      load(slot.request, {slot.text, slot.request.textBytes}, slot.reply);
    else
      verify(slot.request, slot.reply);
    slot.reply.poolPeakBytes = memory_.peakBytes();
    slot.reply.busyNs = static_cast<std::uint64_t>(std::chrono::nanoseconds(Clock::now() - begin).count());
    return trace.exit(slot.reply.area.sqlerrd[0]);
  }

  void load(const Request& request, std::string_view text, Reply& reply) {
    SqltTraceScope<FID_loadBlock> trace;
    Findings findings(reply.findings, reply.area);
    Packages packages(memory_.resource());
    Stanza stanza(memory_.resource());
    for (StanzaReader stanzas(text, request.firstLine); stanzas.next();) {
      findings.beginStanza();
      parseStanza(stanzas.text(), stanzas.line(), findings, &stanza);
      if (request.cut && stanzas.isLast())
        findings.note(trace, Condition::kStanzaCut, stanzas.line(), "its end is missing");
      Package package(memory_.resource());
      makePackage(stanza, findings, &package);
      count(package, reply);
      if (package.name.empty()) continue;
      indexPackage(package, index_, findings);
      packages.push_back(std::move(package));
    }
    const std::lock_guard guard(lock_);
    blocks_.emplace(request.number, std::move(packages));
    trace.exit(reply.area.sqlerrd[0]);
  }

  static void count(const Package& package, Reply& reply) noexcept {
    ++reply.stanzas;
    if (package.name.empty()) return;
    ++reply.packages;
    if (!package.installed) return;
    reply.installedKib += package.installedKib;
    SectionRow& row = sectionRow(reply, package.section.empty() ? "(none)" : std::string_view(package.section));
    ++row.packages;
    row.installedKib += package.installedKib;
  }

  void verify(const Request& request, Reply& reply) {
    SqltTraceScope<FID_verifyBlock> trace;
    Findings findings(reply.findings, reply.area);
    for (const Package& package : packagesOf(request.block)) {
      findings.beginStanza();
      findings.namePackage(package.name);
      verifyUnique(package, index_, findings);
      if (package.installed) verifyRelations(package, index_, findings);
    }
    trace.exit(reply.area.sqlerrd[0]);
  }

  Packages packagesOf(std::uint32_t block) {
    const std::lock_guard guard(lock_);
    const auto found = blocks_.find(block);
    if (found == blocks_.end()) return Packages(memory_.resource());
    Packages packages = std::move(found->second);
    blocks_.erase(found);
    return packages;
  }

  const WorkerSetup& setup_;
  WorkerMemory& memory_;
  Index index_;
  std::mutex lock_;
  std::map<std::uint32_t, Packages> blocks_;  // by number of their load request
};

}  // namespace

int runWorker(const WorkerSetup& setup) {
  const EngineUnit unit(workerUnit(setup.number), "worker-" + std::to_string(setup.number));
  SqltTraceScope<FID_runWorker> trace;
  WorkerMemory memory;
  if (const SqlzZrc code = memory.open(); code != 0) return trace.exit(1);
  Worker worker(setup, memory);
  std::vector<std::jthread> threads;
  for (unsigned thread = 1; thread <= setup.threads; ++thread)
    threads.emplace_back([&worker, thread] { worker.runThread(thread); });
  threads.clear();  // waits for all of them
  return trace.exit(0);
}

}  // namespace demo
