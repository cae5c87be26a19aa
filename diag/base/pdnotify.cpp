#include "diag/base/pdnotify.h"

#include <atomic>
#include <cstring>
#include <string_view>

#include "diag/base/pddiagpath.h"
#include "diag/base/pditems.h"
#include "diag/base/pdrecord.h"
#include "diag/base/pdtime.h"
#include "diag/base/sqlmsg.h"
#include "diag/base/traced.h"
#include "platform/fault.h"
#include "platform/osse.h"
#include "platform/ports.h"
#include "platform/system_log.h"
#include "veksys/codes.h"
#include "veksys/host.h"

namespace vek {
namespace {

constexpr std::size_t kEntryBytes = 8192;
constexpr std::size_t kLinesBytes = 4096;          // what happened
constexpr std::size_t kSystemMessageBytes = 2048;  // daemons cut longer ones
constexpr std::string_view kCutMark = "...(cut)\r\n\r\n";
constexpr std::string_view kIndent = "    ";
constexpr char kSetting[] = "VEK_EVENT_LOG_CONFIG";

// ---- the entry --------------------------------------------------------------------------------------------------

// A text on one line: what would end the line, or is no character, becomes '?'.
void penClean(PdPen& pen, std::string_view text) noexcept {
  for (const char c : text) {
    const bool isControl = static_cast<unsigned char>(c) < ' ' || c == '\x7F';
    pen.character(c == '\t' ? ' ' : isControl ? '?' : c);
  }
}

const char* nameOr(const char* name, const char* other) noexcept { return name != nullptr ? name : other; }

// False: nothing is known, or a call-back of the host faulted, which costs the entry these fields and nothing else.
bool askApplication(VekApplication* out) noexcept {
  struct Asked {
    VekApplication* fields;
    bool isKnown;
  } asked = {out, false};
  if (!pdi_asksCallBacks()) return false;
  const bool isWhole = faultGuard(
      [](void* context) {
        auto& of = *static_cast<Asked*>(context);
        of.isKnown = pdi_applicationFields(of.fields);
      },
      &asked, nullptr);
  return isWhole && asked.isKnown;
}

void penHead(PdPen& pen, std::uint32_t level, std::int64_t timeNs) noexcept {
  char process[64];
  ossProcessName(process, sizeof process);
  VekApplication application;
  const bool hasApplication = askApplication(&application);
  pdPenTimeStamp(pen, timeNs);
  pen.textLeft(pdLevelName(level), 9);
  pen.text(vekInstanceName());
  pen.character('/');
  pen.signedDecimalZeros(vekInstanceControl()->partition, 3);
  pen.character(' ');
  penClean(pen, process);
  pen.character('[');
  pen.decimal(ossProcessId());
  pen.character('.');
  pen.decimal(ossThreadId());
  pen.character(']');
  if (hasApplication && application.databaseName[0] != '\0') {
    pen.text(" database ");
    penClean(pen, application.databaseName);
  }
  if (hasApplication && application.applicationId[0] != '\0') {
    pen.text(" application ");
    penClean(pen, application.applicationId);
  }
  pen.newLine();
}

// Every line of a text behind the indent; empty ones are left out.
void penIndented(PdPen& pen, std::string_view text) noexcept {
  while (!text.empty() && !pen.isCut()) {
    const std::string_view line = text.substr(0, text.find_first_of("\r\n"));
    text.remove_prefix(line.size() < text.size() ? line.size() + 1 : line.size());
    if (line.empty()) continue;
    pen.text(kIndent);
    penClean(pen, line);
    pen.newLine();
  }
}

void penReporter(PdPen& pen, EcfFunctionId functionId, std::uint32_t probe) noexcept {
  pen.text(kIndent);
  pen.text("Reported by ");
  penClean(pen, nameOr(ecfGetComponentName(functionId), "Unknown"));
  pen.text(", ");
  if (const char* name = ecfGetFunctionName(functionId); name != nullptr) {
    penClean(pen, name);
  } else {
    pen.text("function 0x");
    pen.hex(functionId, 8);
  }
  pen.text(", probe ");
  pen.decimal(probe);
  pen.newLine();
}

// ---- the system log ---------------------------------------------------------------------------------------------

struct SystemFacility {
  std::string_view name;
  int number;
};

constexpr SystemFacility kSystemFacilities[] = {
    {"USER", 1},    {"DAEMON", 3},  {"LOCAL0", 16}, {"LOCAL1", 17}, {"LOCAL2", 18},
    {"LOCAL3", 19}, {"LOCAL4", 20}, {"LOCAL5", 21}, {"LOCAL6", 22}, {"LOCAL7", 23},
};

// Severities of the system log for levels 0 to 6: alert 1, critical 2, error 3, warning 4, notice 5, information 6.
constexpr int kSeverities[] = {5, 2, 3, 4, 6, 1, 5};

// Puts "Jan 31 13:59:59" for the time stamp 2026-01-31-13.59.59.
void penSystemTime(PdPen& pen, std::int64_t timeNs) noexcept {
  constexpr std::string_view kMonths = "JanFebMarAprMayJunJulAugSepOctNovDec";
  char stamp[PD_TIME_CHARACTERS + 1];
  PdPen stampPen(stamp, sizeof stamp);
  pdPenTime(stampPen, timeNs);
  stampPen.finish({});
  const auto month = static_cast<std::size_t>((stamp[5] - '0') * 10 + stamp[6] - '1');
  pen.text(kMonths.substr(month % 12 * 3, 3));
  pen.character(' ');
  pen.character(stamp[8] == '0' ? ' ' : stamp[8]);
  pen.character(stamp[9]);
  for (const std::size_t at : {11U, 14U, 17U}) {
    pen.character(at == 11 ? ' ' : ':');
    pen.text({stamp + at, 2});
  }
}

// All lines of an entry on one.
void penJoined(PdPen& pen, std::string_view lines) noexcept {
  bool isFirst = true;
  while (!lines.empty()) {
    const std::string_view line = lines.substr(0, lines.find("\r\n"));
    lines.remove_prefix(line.size() + 2 <= lines.size() ? line.size() + 2 : lines.size());
    const std::size_t start = line.find_first_not_of(' ');
    if (start == std::string_view::npos) continue;
    if (!isFirst) pen.text("; ");
    pen.text(line.substr(start));
    isFirst = false;
  }
}

int sendToSystemLog(int priority, std::int64_t timeNs, std::string_view lines) noexcept {
  char message[kSystemMessageBytes];
  PdPen pen(message, sizeof message);
  pen.character('<');
  pen.decimal(static_cast<std::uint64_t>(priority));
  pen.character('>');
  penSystemTime(pen, timeNs);
  pen.text(" veksys[");
  pen.decimal(ossProcessId());
  pen.text("]: ");
  pen.text(vekInstanceName());
  pen.text(": ");
  penJoined(pen, lines);
  const std::size_t length = pen.finish("...(cut)");
  return systemLogSend(message, length);
}

// ---- failures ---------------------------------------------------------------------------------------------------

constinit std::atomic<bool> g_isAnythingWaiting = false;

// A failure that is reported once per streak. It may be met inside a log call, where no record can be written: it is
// kept until pdi_reportNotifyFailures comes along.
class Streak {
 public:
  void failed(SqlzZrc zrc, std::uint32_t probe, const char* text) noexcept {
    State expected = kNone;
    if (!state_.compare_exchange_strong(expected, kFilling)) return;
    zrc_ = zrc;
    probe_ = probe;
    ossCopyText(text_, sizeof text_, text);
    state_.store(kWaiting, std::memory_order_release);
    g_isAnythingWaiting.store(true, std::memory_order_release);
  }
  void succeeded() noexcept {
    State expected = kReported;
    state_.compare_exchange_strong(expected, kNone);
  }
  void report() noexcept {
    State expected = kWaiting;
    if (!state_.compare_exchange_strong(expected, kFilling)) return;
    char text[sizeof text_];
    ossCopyText(text, sizeof text, text_);
    const PortEvent event = {FID_pdNotify, probe_, PD_LEVEL_WARNING, zrc_, text};
    state_.store(kReported, std::memory_order_release);
    g_ports.reportEvent(event);
  }

 private:
  enum State : std::uint8_t { kNone, kFilling, kWaiting, kReported };

  std::atomic<State> state_ = kNone;
  SqlzZrc zrc_ = 0;
  std::uint32_t probe_ = 0;
  char text_[2 * PD_DIAGPATH_BYTES] = {};
};

constinit Streak g_fileStreak;
constinit Streak g_systemLogStreak;
constinit Streak g_settingStreak;

// The priority that the setting asks for; -1: none.
int wantedPriority(std::uint32_t level) noexcept {
  char setting[64];
  if (!g_ports.readSetting(kSetting, setting, sizeof setting)) return -1;
  bool isUnderstood = false;
  const int priority = pdi_systemLogPriority(setting, level, &isUnderstood);
  if (isUnderstood) {
    g_settingStreak.succeeded();
    return priority;
  }
  char text[2 * PD_DIAGPATH_BYTES];
  ossSnprintf(text, sizeof text, "%s=%s is not understood; accepted are SYSLOG and SYSLOG:<facility>, with %s",
              kSetting, setting, "USER, DAEMON or LOCAL0 to LOCAL7");
  g_settingStreak.failed(SQLO_INV_PARM, 30, text);
  return -1;
}

void passToSystemLog(std::uint32_t level, std::int64_t timeNs, std::string_view lines) noexcept {
  const int priority = wantedPriority(level);
  if (priority < 0) return;
  const int error = sendToSystemLog(priority, timeNs, lines);
  if (error == 0) return g_systemLogStreak.succeeded();
  char text[128];
  ossSnprintf(text, sizeof text, "The system log at %s cannot be reached, error %d", SYSTEM_LOG_SOCKET, error);
  g_systemLogStreak.failed(SQLT_SYSLOG_FORWARD, 20, text);
}

SqlzZrc appendToFile(std::string_view entry) noexcept {
  const PdDiagDirectory directory = pdiTrustedDirectory();
  char path[PD_DIAGPATH_BYTES + sizeof VekInstanceControl::instanceName + sizeof ".nfy"];
  ossSnprintf(path, sizeof path, "%s%s.nfy", directory.path, vekInstanceName());
  if (directory.length != 0 && pdi_appendText(path, entry.data(), entry.size()) == 0) {
    g_fileStreak.succeeded();
    return 0;
  }
  char text[sizeof path + 64];
  ossSnprintf(text, sizeof text, "The administration notification log %s cannot be written", path);
  g_fileStreak.failed(SQLT_NOTIFYLOG_WRITE, 10, text);
  return SQLT_DIAGERR_LOGERR;
}

// ---- what a log call has to say ---------------------------------------------------------------------------------

bool isText(std::uint32_t type) noexcept {
  return type == PD_TYPE_STRING || type == PD_TYPE_STRINGN || type == PD_TYPE_RAW_STRINGN;
}

void penItem(PdPen& pen, const PdtItem& item) noexcept {
  const std::uint32_t type = item.type & ~PD_ITEM_ARGUMENT;
  if (!isText(type)) {
    pdPenTypeDescription(pen, type);
    pen.text(": ");
  }
  pdPenItemValue(pen, type, item.size, item.data);
}

void penItems(PdPen& pen, const PdLogCall& call) noexcept {
  if (call.arguments == nullptr || call.format != nullptr) {
    for (std::uint64_t i = 0; call.items != nullptr && i < call.itemCount; ++i) penItem(pen, call.items[i]);
    return;
  }
  std::va_list arguments;
  va_copy(arguments, *call.arguments);  // NOLINT(clang-analyzer-valist.Uninitialized): the caller started it
  for (std::uint64_t i = 0; i < call.itemCount && !pen.isCut(); ++i) {
    PdtItem item = {};
    item.type = va_arg(arguments, std::uint32_t);
    item.size = va_arg(arguments, std::uint32_t);
    item.data = va_arg(arguments, const void*);
    penItem(pen, item);
  }
  va_end(arguments);
}

void penEvent(PdPen& pen, const PdLogEvent& event) noexcept {
  if (event.action != nullptr) pen.text(event.action);
  if (event.action != nullptr && event.object != nullptr) pen.text(": ");
  if (event.object != nullptr) pen.text(event.object);
  pen.newLine();
  if (event.impact == nullptr) return;
  pen.text("Impact: ");
  pen.text(event.impact);
  pen.newLine();
}

void penCode(PdPen& pen, const PdLogCall& call) noexcept {
  const PdCodeKind kind = pdCodeKindOfFlags(call.flags);
  if (kind == PdCodeKind::kNone || call.returnCode == 0) return;
  pen.advance(pdDescribeCode(kind, call.returnCode, pen.next(), pen.room() + 1), true);
}

void penMessageOfNumber(PdPen& pen, std::uint64_t number) noexcept {
  const std::string_view message =
      number <= INT32_MAX ? sqlzi_messageOfZrc(-static_cast<SqlzZrc>(number)) : std::string_view{};
  if (message.empty()) {
    pen.text("Message number ");
    pen.decimal(number);
    pen.text(" is unavailable.");
  } else {
    pen.text(message);
  }
  pen.newLine();
}

void penMessage(PdPen& pen, const PdLogCall& call) noexcept {
  if (call.message != nullptr) {
    pen.text(call.message);
  } else if (call.format != nullptr) {
    std::va_list arguments;
    va_copy(arguments, *call.arguments);  // NOLINT(clang-analyzer-valist.Uninitialized): the caller started it
    pen.advance(ossFormatChecked(pen.next(), pen.room() + 1, call.format, arguments), true);
    va_end(arguments);
  } else if (call.messageNumber != 0) {
    return penMessageOfNumber(pen, call.messageNumber);
  }
  pen.newLine();
}

// What a log call has to say, as lines. Runs under the fault guard: pointers of the caller are followed, and formatters
// run.
struct Telling {
  const PdLogCall& call;
  char* lines;
};

void tell(void* context) noexcept {
  const auto& telling = *static_cast<Telling*>(context);
  PdPen pen(telling.lines, kLinesBytes);
  penMessage(pen, telling.call);
  if (telling.call.event != nullptr) penEvent(pen, *telling.call.event);
  penCode(pen, telling.call);
  penItems(pen, telling.call);
  pen.finish(kCutMark);
}

constexpr char kNotReadable[] = "What this event holds could not be read; the diagnostic log tells more.";

}  // namespace

int pdi_systemLogPriority(const char* setting, std::uint32_t level, bool* isUnderstood) noexcept {
  constexpr std::string_view kSyslog = "SYSLOG";
  const std::string_view value = setting;
  *isUnderstood = value.empty();
  if (!value.starts_with(kSyslog)) return -1;
  const std::string_view rest = value.substr(kSyslog.size());
  for (const SystemFacility& facility : kSystemFacilities) {
    const bool isIt = rest.empty() || (rest.front() == ':' && rest.substr(1) == facility.name);
    if (!isIt) continue;
    *isUnderstood = true;
    return facility.number * 8 + kSeverities[level < std::size(kSeverities) ? level : 0];
  }
  return -1;
}

SqlzZrc pdi_writeNotification(const PdNotification& notification) noexcept {
  const PdInsideLog inside;
  char entry[kEntryBytes];
  PdPen pen(entry, sizeof entry);
  const std::int64_t timeNs = ossRealtimeNs();
  penHead(pen, notification.level, timeNs);
  const std::size_t head = pen.written();
  penReporter(pen, notification.functionId, notification.probe);
  penIndented(pen, notification.lines);
  pen.newLine();
  const std::size_t length = pen.finish(kCutMark);
  const SqlzZrc zrc = appendToFile({entry, length});
  passToSystemLog(notification.level, timeNs, std::string_view(entry, length).substr(head));
  return zrc;
}

void pdi_notify(const PdLogCall& call) noexcept {
  char lines[kLinesBytes];
  Telling telling = {call, lines};
  const bool isTold = faultGuard(tell, &telling, nullptr);
  (void)pdi_writeNotification({call.level, call.functionId, call.probe, isTold ? lines : kNotReadable});
}

void pdi_reportNotifyFailures() noexcept {
  if (!g_isAnythingWaiting.load(std::memory_order_acquire)) [[likely]]
    return;
  g_isAnythingWaiting.store(false, std::memory_order_relaxed);
  for (Streak* streak : {&g_fileStreak, &g_systemLogStreak, &g_settingStreak}) streak->report();
}

}  // namespace vek

bool sqltTestNotifyLevel(std::uint64_t flags) noexcept {
  const auto level = static_cast<std::int64_t>((flags & PD_LOG_NOTIFY_MASK) >> PD_LOG_NOTIFY_SHIFT);
  return vekInstanceControl()->NOTIFYLEVEL >= level;
}
