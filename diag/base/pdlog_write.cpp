// The core of the log: facts, the record, its way into the file, and what is said when that fails.
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>

#include "diag/base/pddiagpath.h"
#include "diag/base/pdlog.h"
#include "diag/base/pdlog_files.h"
#include "diag/base/pdlog_state.h"
#include "diag/base/pdnewfile.h"
#include "diag/base/pdnotify.h"
#include "diag/base/pdrecord.h"
#include "diag/base/pdtrap.h"
#include "diag/base/traced.h"
#include "platform/fault.h"
#include "platform/host.h"
#include "platform/library_mutex.h"
#include "platform/log_mutex.h"
#include "platform/osse.h"
#include "platform/ports.h"
#include "platform/thread.h"
#include "veksys/codes.h"
#include "veksys/diag/rc.h"

namespace vek {
namespace {

constexpr std::size_t kMostItems = PD_RECORD_BYTES / 16;  // more cannot stand in a record: each takes a line at least
constexpr std::size_t kPassedItems = 64;                  // what recorders and the trace are told of
constexpr std::size_t kProcessNameBytes = 63;             // as many of it are shown
constexpr std::size_t kFirstBytes = PD_NEW_FILE_TEXT_BYTES + 4096;

// What the mutex guards.
struct Logger {
  char record[PD_RECORD_BYTES] = {};
  char newFile[PD_NEW_FILE_TEXT_BYTES] = {};
  char first[kFirstBytes] = {};  // the new-file record, with that text
  std::size_t noteBytes = 0;
  char note[1024] = {};
  PdRecordMemory memory;
  PdItem items[kMostItems] = {};
  PdDumpedObject dumped;
  AppendOutcome outcome = {};
  PdRecordHeader header;  // of the record being written; the new-file record takes its facts from it
  CallStack stack = {};
  bool hasStack = false;
  char salvaged[512] = {};  // the message of a call whose formatting faulted
  Fault fault = {};
};

// Calls from inside a log call, counted together with the process that made them: a child of fork begins anew, since
// its parent tells of its own.
class Dropped {
 public:
  void add(std::uint32_t processId, std::uint32_t count) noexcept {
    std::uint64_t known = state_.load(std::memory_order_relaxed);
    while (!state_.compare_exchange_weak(known, stateOf(processId, countIn(known, processId) + count),
                                         std::memory_order_relaxed)) {
    }
  }
  std::uint32_t take(std::uint32_t processId) noexcept {
    if (state_.load(std::memory_order_relaxed) == 0) [[likely]]
      return 0;
    return countIn(state_.exchange(0, std::memory_order_relaxed), processId);
  }

 private:
  static std::uint64_t stateOf(std::uint32_t processId, std::uint32_t count) noexcept {
    return std::uint64_t{processId} << 32 | count;
  }
  static std::uint32_t countIn(std::uint64_t state, std::uint32_t processId) noexcept {
    return state >> 32 == processId ? static_cast<std::uint32_t>(state) : 0;
  }

  std::atomic<std::uint64_t> state_ = 0;  // process, count
};

constinit Logger g_log;
constinit Dropped g_dropped;
thread_local constinit int t_inside __attribute__((tls_model("initial-exec"))) = 0;

// ---- facts, collected while no lock is held ---------------------------------------------------------------------

struct Facts {
  VekApplication application;
  bool hasApplication;
  VekEngineUnit unit;
  bool hasUnit;
  std::string_view processName;
  std::string_view instance;
  std::int32_t partition;
  char facilityDirectory[PD_DIAGPATH_BYTES];
  char facilityName[APPEND_NAME_BYTES];
  PdLogTarget target;
};

template <std::size_t Bytes>
std::string_view view(const char (&field)[Bytes]) noexcept {
  return {field, ::strnlen(field, Bytes)};
}

std::string_view view(const char* text, std::size_t most = PD_RECORD_BYTES) noexcept {
  return text == nullptr ? std::string_view() : std::string_view(text, ::strnlen(text, most));
}

void takeApplication(const VekApplication& from, PdRecordHeader* header) noexcept {
  header->database = view(from.databaseName);
  header->hasHandle = from.hasHandle;
  header->handlePartition = from.handlePartition;
  header->handleIndex = from.handleIndex;
  header->applicationId = view(from.applicationId);
  header->unitOfWorkId = from.unitOfWorkId;
  header->activityId = from.activityId;
  header->tenantId = from.tenantId;
  header->authorizationId = view(from.authorizationId);
  header->hostName = view(from.hostName);
}

void takeThread(PdRecordHeader* header) noexcept {
  const ThreadState* self = threadSelf();
  header->processId = self != nullptr ? self->processId : ossProcessId();
  header->threadId = self != nullptr ? self->threadId : ossThreadId();
}

// Runs under the fault guard: a call-back that faults costs the record these fields, and nothing else.
void askCallBacks(void* context) noexcept {
  auto& facts = *static_cast<Facts*>(context);
  facts.hasApplication = pdi_applicationFields(&facts.application);
  std::atomic_signal_fence(std::memory_order_seq_cst);
  facts.hasUnit = pdi_engineUnit(&facts.unit);
}

// What the host is asked for, and what it may change.
void collect(Facts* facts) noexcept {
  facts->processName = view(ossProgramName(), kProcessNameBytes);
  facts->instance = view(vekInstanceName(), sizeof VekInstanceControl::instanceName);
  facts->partition = vekInstanceControl()->partition;
  facts->hasApplication = facts->hasUnit = false;
  if (pdi_asksCallBacks()) (void)faultGuard(askCallBacks, facts, nullptr);
}

// The header, but for the time. Its views lead into `facts` and the call.
void describe(const PdLogCall& call, const Facts& facts, PdRecordHeader* header) noexcept {
  *header = {};
  header->level = call.level;
  header->functionId = call.functionId;
  header->probe = call.probe;
  if (call.hasOsError) header->secondLevel = "OS";
  takeThread(header);
  header->processName = facts.processName;
  header->instance = facts.instance;
  header->partition = facts.partition;
  if (facts.hasApplication) takeApplication(facts.application, header);
  header->hasEngineUnit = facts.hasUnit;
  if (!facts.hasUnit) return;
  header->engineUnitId = facts.unit.number;
  header->engineUnitName = view(facts.unit.name);
}

// Cuts a path into directory, with its separator, and name.
bool splitPath(const char* path, char* directory, std::size_t directoryBytes, char* name,
               std::size_t nameBytes) noexcept {
  const char* slash = std::strrchr(path, '/');
  if (slash == nullptr || slash[1] == '\0' || std::strlen(slash + 1) >= nameBytes) return false;
  const auto length = static_cast<std::size_t>(slash + 1 - path);
  if (length >= directoryBytes) return false;
  std::memcpy(directory, path, length);
  directory[length] = '\0';
  ossCopyText(name, nameBytes, slash + 1);
  return true;
}

// ---- the record, with the mutex ---------------------------------------------------------------------------------

PdItem itemOf(std::uint32_t type, std::uint32_t size, const void* data) noexcept {
  PdItem item;
  item.type = type & ~PD_ITEM_ARGUMENT;
  item.size = size;
  item.data = data;
  item.isArgument = (type & PD_ITEM_ARGUMENT) != 0;
  return item;
}

// Hands the items of a call to `take`, at most `most`; answers how many.
template <class Take>
std::size_t forItems(const PdLogCall& call, std::size_t most, Take take) noexcept {
  const std::size_t count = std::min<std::uint64_t>(call.itemCount, most);
  if (call.arguments == nullptr || call.format != nullptr) {
    for (std::size_t i = 0; i < count && call.items != nullptr; ++i)
      take(i, call.items[i].type, call.items[i].size, call.items[i].data);
    return call.items != nullptr ? count : 0;
  }
  std::va_list arguments;
  va_copy(arguments, *call.arguments);  // NOLINT(clang-analyzer-valist.Uninitialized): the caller has started it
  for (std::size_t i = 0; i < count; ++i) {
    const auto type = va_arg(arguments, std::uint32_t);  // NOLINT(clang-analyzer-valist.Uninitialized): as above
    const auto size = va_arg(arguments, std::uint32_t);
    take(i, type, size, va_arg(arguments, const void*));
  }
  va_end(arguments);
  return count;
}

// A record on its way.
struct Job {
  const PdLogCall& call;
  const PdLogDumpFact* dump;  // an object that stands in a dump file, instead of items
  const PdLogTarget& target;
  PdRecordText text;
  bool isFormatted;
  int error;  // of the file
};

PdOsError osErrorOf(const PdLogCall& call) noexcept {
  if (!call.hasOsError) return {};
  const bool onLineOfCalled = call.calledFunctionId != 0 || call.calledSystemFunction != nullptr;
  return {onLineOfCalled ? PdOsError::Line::kOfCalled : PdOsError::Line::kOwn, call.osError};
}

PdCodeKind codeKindOf(const PdLogCall& call) noexcept {
  const PdCodeKind kind = pdCodeKindOfFlags(call.flags);
  return call.returnCode == 0 && kind != PdCodeKind::kMarker ? PdCodeKind::kNone : kind;
}

void takeMessage(const PdLogCall& call, PdRecordBody* body) noexcept {
  body->message = view(call.message);
  body->hasMessageNumber = call.messageNumber != 0;
  body->messageNumber = call.messageNumber;
  if (call.preformatted != nullptr) body->preformatted = {call.preformatted, call.preformattedBytes};
}

void takeItems(const Job& job, PdRecordBody* body) noexcept {
  body->items = g_log.items;
  body->itemsAnnounced = job.call.itemsAnnounced;
  if (job.dump != nullptr) {
    if (!job.dump->object.dumped) {
      body->dumpFile = job.dump->object.file;
      body->dumpError = job.dump->error;
      body->dumpCode = job.dump->code;
    }
    g_log.items[0] = itemOf(PD_TYPE_HEXDUMP, job.dump->size, job.dump->data);
    g_log.dumped = job.dump->object;
    g_log.dumped.object = view(job.dump->label);
    g_log.items[0].dump = &g_log.dumped;
    body->itemCount = 1;
    return;
  }
  body->itemCount =
      forItems(job.call, kMostItems, [](std::size_t i, std::uint32_t type, std::uint32_t size, const void* data) {
        g_log.items[i] = itemOf(type, size, data);
      });
}

// Formats the record of a call into the buffer.
void formatRecord(Job& job) noexcept {
  const PdLogCall& call = job.call;
  PdRecordBody body;
  takeMessage(call, &body);
  std::va_list arguments;
  if (call.format != nullptr && call.message == nullptr) {
    va_copy(arguments, *call.arguments);  // NOLINT(clang-analyzer-valist.Uninitialized): the caller has started it
    body.messageFormat = call.format;
    body.messageArguments = &arguments;
  }
  const PdCalled called = {call.calledFunctionId, "OS", "-", view(call.calledSystemFunction)};
  if (call.calledFunctionId != 0 || call.calledSystemFunction != nullptr) body.called = &called;
  body.codeKind = codeKindOf(call);
  body.code = call.returnCode;
  body.osError = osErrorOf(call);
  PdSection section;
  if (call.event != nullptr) {
    body.impact = view(call.event->impact);
    section = {view(call.event->action), view(call.event->object)};
    if (section.label.empty())
      body.object = section.text;
    else
      body.sections = &section, body.sectionCount = 1;
  }
  takeItems(job, &body);
  body.note = {g_log.note, g_log.noteBytes};
  if ((call.flags & PD_LOG_CALL_STACK) != 0) {
    if (g_log.hasStack)
      body.callStack = &g_log.stack;
    else
      body.remark = "The call stack could not be followed.\r\n";
  }
  job.text = pdFormatRecord(g_log.header, body, g_log.record, sizeof g_log.record, &g_log.memory);
  if (body.messageArguments != nullptr) va_end(arguments);  // NOLINT(clang-analyzer-valist.Uninitialized): as above
}

void stamp(char* record, std::uint64_t offset, std::size_t length) noexcept {
  (void)pdStampIdentifier(record, offset, length);
}

// The first record of a new file, with the facts of the record that is about to follow it.
AppendText newFileText() noexcept {
  const std::size_t length = pdGatherNewFileText(g_log.newFile, sizeof g_log.newFile);
  PdNewFileBody body;
  pdMakeNewFileBody(g_log.newFile, length, &body);
  PdRecordHeader header = g_log.header;
  header.level = PD_LEVEL_EVENT;
  header.secondLevel = {};
  header.functionId = FID_pdLog;
  header.probe = 10;
  const PdRecordText text = pdFormatRecord(header, body.body, g_log.first, sizeof g_log.first);
  return {g_log.first, text.length, stamp};
}

// ---- into the file ----------------------------------------------------------------------------------------------

void appendRecord(void* context) noexcept {
  auto& job = *static_cast<Job*>(context);
  const AppendText text = {g_log.record, job.text.length, stamp};
  job.error = pdi_appendRecord(job.target, text, job.target.isDiagnosticLog ? newFileText : nullptr, &g_log.outcome);
}

// Runs under the fault guard: what the caller's pointers lead to and what formatters do is not in our hands, and a lock
// file may be cut while it is mapped. One guard for both, since each costs a system call.
void formatAndAppend(void* context) noexcept {
  auto& job = *static_cast<Job*>(context);
  formatRecord(job);
  job.isFormatted = true;
  std::atomic_signal_fence(std::memory_order_seq_cst);
  appendRecord(context);
}

// After a fault while the file was in use.
int abandonFiles() noexcept {
  pdi_abandonFiles(&g_log.outcome);
  return EFAULT;
}

// Keeps as much of the message of a call as can be read, on one line, so that it looks like no section or record.
void salvageMessage(void* context) noexcept {
  const auto& call = *static_cast<const PdLogCall*>(context);
  const char* from = call.message != nullptr ? call.message : call.format;
  for (std::size_t i = 0; from != nullptr && i + 1 < sizeof g_log.salvaged; ++i) {
    const char c = from[i];
    if (c == '\0') return;
    g_log.salvaged[i] = static_cast<unsigned char>(c) < ' ' ? ' ' : c;
    g_log.salvaged[i + 1] = '\0';
    std::atomic_signal_fence(std::memory_order_seq_cst);
  }
}

// The record that stands for one whose formatting faulted; `error`: why there is no trap file.
PdRecordText formatTrap(const PdLogCall& call, int error) noexcept {
  char line[160];
  const std::size_t length = ossSnprintf(line, sizeof line, "Trap %8.8lx detected in vekdiag call from [%ld,%ld] ",
                                         static_cast<unsigned long>(g_log.fault.signal),
                                         static_cast<long>(call.functionId), static_cast<long>(call.probe));
  ossSnprintf(line + length, sizeof line - length, error == 0 ? "trapfile created" : "no trapfile, error %d", error);
  g_log.salvaged[0] = '\0';
  (void)faultGuard(salvageMessage, const_cast<PdLogCall*>(&call), nullptr);
  PdRecordBody body;
  body.message = line;
  body.codeKind = codeKindOf(call);
  body.code = call.returnCode;
  char remark[sizeof g_log.salvaged + 64];
  if (g_log.salvaged[0] != '\0')
    body.remark = {remark, ossSnprintf(remark, sizeof remark, "Message of the call: %s\r\n", g_log.salvaged)};
  body.note = {g_log.note, g_log.noteBytes};
  return pdFormatRecord(g_log.header, body, g_log.record, sizeof g_log.record);
}

void appendTrap(void* context) noexcept {
  auto& job = *static_cast<Job*>(context);
  const int error = pdi_writeTrapFile(job.target.directory, g_log.header, g_log.fault);
  job.text = formatTrap(job.call, error);
  appendRecord(context);
}

// 0 or an errno value; EFAULT: a fault while the file was in use.
int writeGuarded(Job& job) noexcept {
  if (faultGuard(formatAndAppend, &job, &g_log.fault)) return job.error;
  if (job.isFormatted) return abandonFiles();
  return faultGuard(appendTrap, &job, nullptr) ? job.error : abandonFiles();
}

// What the record has to say besides its own matter.
void composeNote(const PdLogLosses& losses, std::uint32_t dropped) noexcept {
  g_log.noteBytes = losses.compose(g_log.note, sizeof g_log.note);
  if (dropped == 0) return;
  g_log.noteBytes += ossSnprintf(g_log.note + g_log.noteBytes, sizeof g_log.note - g_log.noteBytes,
                                 "Before this record %u log call%s from inside a log call %s dropped.\r\n", dropped,
                                 dropped == 1 ? "" : "s", dropped == 1 ? "was" : "were");
}

SqlzZrc writeLocked(const PdLogCall& call, const PdLogDumpFact* dump, const Facts& facts) noexcept {
  const std::uint32_t dropped = g_dropped.take(g_log.header.processId);
  PdLogLosses& losses = PdLogLosses::of(facts.target.name, g_log.header.processId);
  composeNote(losses, dropped);
  g_log.header.timeNs = ossRealtimeNs();
  Job job = {.call = call, .dump = dump, .target = facts.target, .text = {}, .isFormatted = false, .error = 0};
  const int error = writeGuarded(job);
  g_log.record[0] = '\0';
  if (error == 0) {
    losses.forget();
    return 0;
  }
  if (dropped != 0) g_dropped.add(g_log.header.processId, dropped);
  losses.add(error, g_log.outcome, g_log.header.timeNs);
  return SQLT_DIAGERR_LOGERR;
}

// Lines that are no record on their way.
struct Lines {
  PdLogTarget target;
  AppendText text;
  int error;
};

void appendLines(void* context) noexcept {
  auto& lines = *static_cast<Lines*>(context);
  lines.error = pdi_appendRecord(lines.target, lines.text, nullptr, &g_log.outcome);
}

// What is to be said about the files, in records of their own.
void writeRemarks(const PdLogTarget& target) noexcept {
  if (!target.isDiagnosticLog) return;
  static constinit PdLogRemark remark = {};
  Facts facts;
  while (pdi_takeRemark(&remark)) {
    PdLogCall call = {};
    call.flags = PD_LOG_RC_ZRC;
    call.functionId = FID_pdLogRotate;
    call.probe = remark.probe;
    call.level = remark.level;
    call.returnCode = remark.zrc;
    call.message = remark.text;
    if (pdi_isFiltered(call.level)) continue;
    g_log.header.functionId = call.functionId;
    g_log.header.probe = call.probe;
    g_log.header.level = call.level;
    g_log.header.secondLevel = {};
    facts.target = target;
    if (writeLocked(call, nullptr, facts) != 0) return;
  }
}

// ---- whom else it concerns --------------------------------------------------------------------------------------

// What recorders and the trace are told of a call: as much of it as can be read.
struct Passed {
  const PdLogCall& call;
  bool hasEvent;
  PdRecorderEvent event;
  std::size_t count;
  PdtItem items[kPassedItems];
};

// Reads a byte of each page of a value: those who are told of it take latches, and must not meet the fault.
void touch(const PdtItem& item) noexcept {
  constexpr std::uint32_t kPageBytes = 4096;
  const auto* bytes = static_cast<const volatile char*>(item.data);
  if (bytes == nullptr || item.size == 0) return;
  for (std::uint64_t at = 0; at < item.size; at += kPageBytes) (void)bytes[at];
  (void)bytes[item.size - 1];
}

// Runs under the fault guard.
void gather(void* context) noexcept {
  auto& passed = *static_cast<Passed*>(context);
  if (passed.call.recorderEvent != nullptr) {
    passed.event = *passed.call.recorderEvent;
    passed.hasEvent = true;
  }
  forItems(passed.call, kPassedItems, [&](std::size_t i, std::uint32_t type, std::uint32_t size, const void* data) {
    passed.items[i] = {type & ~PD_ITEM_ARGUMENT, size, data};
    touch(passed.items[i]);
    passed.count = i + 1;
    std::atomic_signal_fence(std::memory_order_seq_cst);
  });
}

void passToRecorderAndTrace(const PdLogCall& call) noexcept {
  const bool isTraced =
      (call.flags & PD_LOG_TRACE) != 0 && (wintTraceWord(ecfComponent(call.functionId)) & SQLT_TRACE_ERROR) != 0;
  if (call.recorderEvent == nullptr && !isTraced) return;
  Passed passed = {.call = call, .hasEvent = false, .event = {}, .count = 0, .items = {}};
  (void)faultGuard(gather, &passed, nullptr);
  if (passed.hasEvent)
    g_ports.recordEvent({passed.event.recorder, passed.event.event, passed.event.qualifiers, call.functionId,
                         call.probe, call.level, call.returnCode, passed.count, passed.items});
  if (isTraced)
    pdtErrorItems(call.functionId, call.probe, call.returnCode,
                  static_cast<std::uint32_t>(std::min<std::size_t>(passed.count, 20)), passed.items);
}

void passOn(const PdLogCall& call) noexcept {
  passToRecorderAndTrace(call);
  if ((call.flags & PD_LOG_NOTIFY_MASK) != 0 && sqltTestNotifyLevel(call.flags)) pdi_notify(call);
}

// ---- where it goes ----------------------------------------------------------------------------------------------

// 0: write it; SQLT_NOLOG: its level keeps it out; SQLT_DIAGERR_LOGERR: there is no such log.
SqlzZrc findFacility(const PdLogCall& call, Facts* facts) noexcept {
  const auto facility = static_cast<std::uint32_t>((call.flags & PD_LOG_FACILITY_MASK) >> PD_LOG_FACILITY_SHIFT);
  char path[PD_DIAGPATH_BYTES + APPEND_NAME_BYTES];
  std::uint32_t level = 0;
  if (!pdi_facilityTarget(facility, path, sizeof path, &level) ||
      !splitPath(path, facts->facilityDirectory, sizeof facts->facilityDirectory, facts->facilityName,
                 sizeof facts->facilityName)) {
    pdi_sayNoLog();
    return SQLT_DIAGERR_LOGERR;
  }
  facts->target = {.directory = facts->facilityDirectory, .name = facts->facilityName};
  return call.level > level ? SQLT_NOLOG : 0;
}

SqlzZrc findTarget(const PdLogCall& call, Facts* facts) noexcept {
  if ((call.flags & PD_LOG_FACILITY_MASK) != 0) return findFacility(call, facts);
  if (pdi_isFiltered(call.level)) return SQLT_NOLOG;
  const PdDiagDirectory directory = pdiTrustedDirectory();
  if (directory.length == 0) {
    pdi_sayNoLog();
    return SQLT_DIAGERR_LOGERR;
  }
  facts->target = {.directory = directory.path,
                   .name = PD_LOG_NAME,
                   .isDiagnosticLog = true,
                   .rotatingBytes = static_cast<std::uint64_t>(vekInstanceControl()->DIAGSIZE) << 20};
  return 0;
}

bool isUsable(const PdLogCall& call) noexcept {
  return call.size == sizeof(PdLogCall) && (call.format == nullptr || call.arguments != nullptr) &&
         (call.preformatted != nullptr || call.preformattedBytes == 0);
}

// Runs under the fault guard: a stack that is overwritten costs the record its call stack, and nothing else.
void takeCallStack(void*) noexcept {
  captureCallStack(&g_log.stack, 4);  // this function, the guard, and the two that lead to it
}

SqlzZrc write(const PdLogCall& call, const PdLogDumpFact* dump) noexcept {
  const PdInsideLog inside;
  pdi_attachLog();
  Facts facts;
  const SqlzZrc found = findTarget(call, &facts);
  passOn(call);
  if (found != 0) return found;
  collect(&facts);
  logMutexLock();
  describe(call, facts, &g_log.header);
  g_log.hasStack = (call.flags & PD_LOG_CALL_STACK) != 0 && faultGuard(takeCallStack, nullptr, nullptr);
  const SqlzZrc result = writeLocked(call, dump, facts);
  writeRemarks(facts.target);
  logMutexUnlock();
  return result;
}

}  // namespace

PdInsideLog::PdInsideLog() noexcept : error_(errno), cancelState_(ossDisableCancellation()) {
  ++t_inside;
  std::atomic_signal_fence(std::memory_order_seq_cst);
}

PdInsideLog::~PdInsideLog() {
  std::atomic_signal_fence(std::memory_order_seq_cst);
  --t_inside;
  ossRestoreCancellation(cancelState_);
  errno = error_;
}

bool pdi_isInsideLog() noexcept { return t_inside != 0; }

SqlzZrc pdi_drop() noexcept {
  g_dropped.add(ossProcessId(), 1);
  return SQLT_DIAGERR_LOGERR;
}

bool pdi_hasPlace(const PdLogCall& call) noexcept {
  const PdInsideLog inside;
  pdi_attachLog();
  Facts facts;
  return findTarget(call, &facts) == 0;
}

std::uint32_t pdi_textBytes(const char* text) noexcept {
  struct Measured {
    const char* text;
    std::size_t bytes;
  } measured = {text, 1};
  if (text == nullptr) return 0;
  (void)faultGuard(
      [](void* context) {
        auto& of = *static_cast<Measured*>(context);
        of.bytes = ::strnlen(of.text, PD_RECORD_BYTES);
      },
      &measured, nullptr);
  return static_cast<std::uint32_t>(measured.bytes);
}

SqlzZrc pdi_writeDumped(const PdLogCall& call, const PdLogDumpFact* dump) noexcept {
  if (!isUsable(call)) return SQLO_INV_PARM;
  if (pdi_isInsideLog() || threadIsInsideLock()) return pdi_drop();
  const SqlzZrc result = write(call, dump);
  if (result == 0) pdiReportDiagPath();
  pdi_reportNotifyFailures();
  return result;
}

SqlzZrc pdi_writeRecord(const PdLogCall& call) noexcept { return pdi_writeDumped(call, nullptr); }

SqlzZrc pdi_appendText(const char* path, const char* text, std::size_t bytes) noexcept {
  if (logMutexIsMine()) return SQLT_DIAGERR_LOGERR;
  char directory[PD_DIAGPATH_BYTES];
  char name[APPEND_NAME_BYTES];
  if (!splitPath(path, directory, sizeof directory, name, sizeof name)) return SQLO_INV_PARM;
  const PdInsideLog inside;
  pdi_attachLog();
  Lines lines = {{.directory = directory, .name = name}, {const_cast<char*>(text), bytes, nullptr}, 0};
  logMutexLock();
  const int error = faultGuard(appendLines, &lines, nullptr) ? lines.error : abandonFiles();
  PdLogLosses& losses = PdLogLosses::of(name, ossProcessId());
  if (error == 0)
    losses.forget();
  else
    losses.add(error, g_log.outcome, ossRealtimeNs());
  logMutexUnlock();
  return error == 0 ? 0 : SQLT_DIAGERR_LOGERR;
}

}  // namespace vek
