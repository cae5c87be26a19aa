// The layout of log records.
#include "diag/base/pdrecord.h"

#include <algorithm>
#include <atomic>
#include <charconv>
#include <cstring>

#include "diag/base/pditems.h"
#include "diag/base/pdpen.h"
#include "diag/base/pdtime.h"
#include "diag/base/sqlmsg.h"
#include "platform/callstack.h"
#include "platform/osse.h"
#include "veksys/diag/rc.h"
#include "veksys/host.h"
#include "veksys/pd_markers.h"

namespace vek {
namespace {

constexpr std::size_t kRecordBytesLeast = 256;
constexpr std::size_t kFieldColumns = 21;    // of the first field of a line with two
constexpr std::size_t kSecondColumns = 15;   // of the second of three
constexpr std::size_t kCalledColumns = 40;   // of a called function with an error of the system behind it
constexpr std::size_t kNameCharacters = 80;  // of product, component and function
constexpr std::size_t kLabelColumns = 8;
constexpr std::size_t kPartitionDigits = 3;
constexpr std::uint64_t kOffsetMost = 9'999'999'999'999'999;  // with a length of five digits: 23 columns
constexpr std::string_view kProduct = "VEK";
constexpr std::string_view kHostLabel = "HOSTNAME: ";

// Sections of a record's own, which no caller's may pass for; those of items are followed by a number.
constexpr std::string_view kOwnLabels[] = {"MESSAGE", "CALLED", "RETCODE", "OSERR", "IMPACT", "CALLSTCK", "FUNCTION"};
constexpr std::string_view kItemLabels[] = {"DATA #", "ARG  #"};

constexpr std::string_view kLevelNames[] = {"Severe", "Error", "Warning", "Info", "Critical", "Event"};

struct MarkerRow {
  std::int32_t number;
  std::string_view name;
  std::string_view text;
};

constexpr MarkerRow kMarkers[] = {
#define PD_MARKER(number, name, text) {number, #name, text},
#include "veksys/pd_markers.def"
#undef PD_MARKER
};

// A text of the header: one that cannot leave its line.
void penField(PdPen& pen, std::string_view field) noexcept {
  while (!field.empty()) {
    const std::size_t visible = pdCountVisible(field);
    pen.text(field.substr(0, visible));
    field.remove_prefix(visible);
    if (field.empty()) return;
    pen.character('?');
    field.remove_prefix(1);
  }
}

void penFieldLeft(PdPen& pen, std::string_view field, std::size_t width) noexcept {
  const std::size_t from = pen.written();
  penField(pen, field);
  pen.padTo(from, width);
}

void penName(PdPen& pen, std::string_view name) noexcept { penField(pen, name.substr(0, kNameCharacters)); }

// Writes a part of a record: the kept text if it `isCurrent`, else what `render` writes, which is kept from now on.
template <class Render>
void penKept(PdPen& pen, PdKeptText* kept, bool isCurrent, Render render) noexcept {
  if (isCurrent && kept->length != 0) return pen.text({kept->text, kept->length});
  kept->length = 0;
  const std::size_t from = pen.written();
  render();
  const std::size_t length = pen.written() - from;
  if (pen.isCut() || length > sizeof kept->text) return;
  std::memcpy(kept->text, pen.next() - length, length);
  std::atomic_signal_fence(std::memory_order_seq_cst);
  kept->length = length;
}

// ---- header lines -------------------------------------------------------------------------------------------------

void penTimeStamp(PdPen& pen, std::int64_t timeNs, PdRecordMemory* memory) noexcept {
  if (memory == nullptr) return pdPenTimeStamp(pen, timeNs);
  const bool isCurrent = memory->second == pdSecondOf(timeNs);
  char* const stamp = pen.next();
  memory->second = pdSecondOf(timeNs);
  penKept(pen, &memory->stamp, isCurrent, [&] { pdPenTimeStamp(pen, timeNs); });
  pdPutMilliseconds(stamp, timeNs);  // every buffer has room for a time stamp
}

void penFirstLine(PdPen& pen, const PdRecordHeader& header, std::size_t identifierColumns,
                  PdRecordMemory* memory) noexcept {
  penTimeStamp(pen, header.timeNs, memory);
  pen.fill(' ', identifierColumns);
  pen.text(" LEVEL: ");
  pen.text(pdLevelName(header.level));
  if (!header.secondLevel.empty()) {
    pen.text(" (");
    penField(pen, header.secondLevel);
    pen.character(')');
  }
  pen.newLine();
}

// Process, thread, instance, partition: two lines, up to where a database may follow.
void renderPlace(PdPen& pen, const PdRecordHeader& header) noexcept {
  pen.text("PID     : ");
  pen.decimalLeft(header.processId, kFieldColumns);
  pen.text("TID : ");
  pen.decimalLeft(header.threadId, kSecondColumns);
  pen.text("PROC : ");
  penField(pen, header.processName);
  pen.newLine();
  pen.text("INSTANCE: ");
  penFieldLeft(pen, header.instance, kFieldColumns);
  pen.text("NODE : ");
  pen.signedDecimalZeros(header.partition, kPartitionDigits);
}

bool isOfPlace(const PdRecordMemory& memory, const PdRecordHeader& header) noexcept {
  return memory.threadId == header.threadId && memory.processId == header.processId &&
         memory.partition == header.partition && memory.processName == header.processName &&
         memory.instance == header.instance;
}

// False: names that are too long to be kept.
bool takePlace(PdRecordMemory* memory, const PdRecordHeader& header) noexcept {
  if (header.processName.size() + header.instance.size() > sizeof memory->names) return false;
  memory->place.length = 0;  // of another one
  memory->processId = header.processId;
  memory->threadId = header.threadId;
  memory->partition = header.partition;
  char* const instance = std::copy(header.processName.begin(), header.processName.end(), memory->names);
  std::copy(header.instance.begin(), header.instance.end(), instance);
  memory->processName = {memory->names, header.processName.size()};
  memory->instance = {instance, header.instance.size()};
  return true;
}

void penPlace(PdPen& pen, const PdRecordHeader& header, PdRecordMemory* memory) noexcept {
  const bool isCurrent = memory != nullptr && isOfPlace(*memory, header);
  if (memory == nullptr || (!isCurrent && !takePlace(memory, header))) return renderPlace(pen, header);
  penKept(pen, &memory->place, isCurrent, [&] { renderPlace(pen, header); });
}

void penDatabase(PdPen& pen, const PdRecordHeader& header) noexcept {
  if (!header.database.empty()) {
    pen.text("           DB   : ");
    penField(pen, header.database);
  }
  pen.newLine();
}

void penApplication(PdPen& pen, const PdRecordHeader& header) noexcept {
  if (header.hasHandle) {
    pen.text("APPHDL  : ");
    const std::size_t from = pen.written();
    pen.signedDecimal(header.handlePartition);
    pen.character('-');
    pen.signedDecimal(header.handleIndex);
    if (!header.applicationId.empty()) {
      pen.padTo(from, kFieldColumns);
      pen.text("APPID: ");
    }
  } else if (!header.applicationId.empty()) {
    pen.text("APPID   : ");
  } else {
    return;
  }
  penField(pen, header.applicationId);
  pen.newLine();
}

void penWork(PdPen& pen, const PdRecordHeader& header) noexcept {
  const bool hasUnit = header.unitOfWorkId != 0;
  if (!hasUnit && header.activityId == 0 && header.tenantId == 0) return;
  if (hasUnit) {
    pen.text("UOWID   : ");
    pen.decimalLeft(header.unitOfWorkId, kFieldColumns);
    pen.text("ACTID: ");
  } else {
    pen.text("ACTID   : ");
  }
  pen.decimalLeft(header.activityId, hasUnit ? kSecondColumns : kFieldColumns);
  if (header.tenantId != 0) {
    pen.text("TENANTID: ");
    pen.decimal(header.tenantId);
  }
  pen.newLine();
}

// It may hold anything, but the label of what may follow it.
void penUserName(PdPen& pen, std::string_view name) noexcept {
  for (std::size_t at = name.find(kHostLabel); at != std::string_view::npos; at = name.find(kHostLabel)) {
    penField(pen, name.substr(0, at));
    pen.text("HOSTNAME? ");
    name.remove_prefix(at + kHostLabel.size());
  }
  penField(pen, name);
}

void penUser(PdPen& pen, const PdRecordHeader& header) noexcept {
  if (header.authorizationId.empty() && header.hostName.empty()) return;
  if (!header.authorizationId.empty()) {
    pen.text("AUTHID  : ");
    const std::size_t from = pen.written();
    penUserName(pen, header.authorizationId);
    if (!header.hostName.empty()) pen.padTo(from, kFieldColumns);
  }
  if (!header.hostName.empty()) {
    pen.text(kHostLabel);
    penField(pen, header.hostName);
  }
  pen.newLine();
}

void penEngineUnit(PdPen& pen, const PdRecordHeader& header) noexcept {
  if (!header.hasEngineUnit) return;
  pen.text("EDUID   : ");
  if (header.engineUnitName.empty()) {
    pen.decimal(header.engineUnitId);
  } else {
    pen.decimalLeft(header.engineUnitId, kFieldColumns);
    pen.text("EDUNAME: ");
    penField(pen, header.engineUnitName);
  }
  pen.newLine();
}

// Product, component and function of an identifier.
void penFunction(PdPen& pen, EcfFunctionId id) noexcept {
  pen.text(kProduct);
  pen.text(", ");
  penName(pen, ecfGetComponentName(id));
  pen.text(", ");
  if (const char* name = ecfGetFunctionName(id); name != nullptr) return penName(pen, name);
  pen.text("0x");
  pen.hex(id, 8);
}

void penFunctionLine(PdPen& pen, const PdRecordHeader& header) noexcept {
  pen.text("FUNCTION: ");
  penFunction(pen, header.functionId);
  pen.text(", probe:");
  pen.decimal(header.probe);
  pen.newLine();
}

void penHeader(PdPen& pen, const PdRecordHeader& header, std::size_t identifierColumns,
               PdRecordMemory* memory) noexcept {
  pen.newLine();
  penFirstLine(pen, header, identifierColumns, memory);
  penPlace(pen, header, memory);
  penDatabase(pen, header);
  penApplication(pen, header);
  penWork(pen, header);
  penUser(pen, header);
  penEngineUnit(pen, header);
  penFunctionLine(pen, header);
}

// ---- body: message, codes, sections -------------------------------------------------------------------------------

void penTextLine(PdPen& pen, std::string_view text) noexcept {
  pdPenText(pen, text);
  pdPenEndLine(pen);
}

bool isOwnLabel(std::string_view label) noexcept {
  label = label.substr(0, label.find_last_not_of(' ') + 1);
  return std::find(std::begin(kOwnLabels), std::end(kOwnLabels), label) != std::end(kOwnLabels) ||
         std::any_of(std::begin(kItemLabels), std::end(kItemLabels),
                     [label](std::string_view start) { return label.starts_with(start); });
}

void penSection(PdPen& pen, const PdSection& section) noexcept {
  if (isOwnLabel(section.label.substr(0, kLabelColumns))) pen.character(' ');
  penFieldLeft(pen, section.label.substr(0, kLabelColumns), kLabelColumns);
  pen.text(": ");
  penTextLine(pen, section.text);
}

void penMessageOfNumber(PdPen& pen, std::uint64_t number) noexcept {
  const bool isSqlCode = number <= INT32_MAX;
  const std::string_view text = isSqlCode ? sqlzi_messageOfZrc(-static_cast<SqlzZrc>(number)) : std::string_view();
  if (!text.empty()) return pdPenText(pen, text);
  pen.text("Message number ");
  pen.decimal(number);
  pen.text(" is unavailable.");
}

// Formats behind the pen, then takes the text in from the end of the room: line ends (a character more, and one for a
// line that must be shielded) may make it longer, and it must not run over what is still to be read.
void penFormatted(PdPen& pen, const char* format, std::va_list& arguments) noexcept {
  const std::size_t room = pen.room();
  char* const text = pen.next();
  const std::size_t characters = ossFormatChecked(text, room + 1, format, arguments);
  const auto lineEnds = static_cast<std::size_t>(std::count(text, text + characters, '\n'));
  const std::size_t growth = lineEnds + pdCountSections({text, characters});
  const std::size_t taken = std::min(characters, room - std::min(room, growth));
  char* const from = text + room - taken;
  std::memmove(from, text, taken);
  pdPenText(pen, {from, taken});
  if (taken != characters || characters == room) pen.stop();
}

void penMessage(PdPen& pen, const PdRecordBody& body) noexcept {
  const bool isFormat = body.messageFormat != nullptr && body.messageArguments != nullptr;
  if (body.message.empty() && !isFormat && !body.hasMessageNumber) return;
  pen.text("MESSAGE : ");
  if (!body.message.empty())
    pdPenText(pen, body.message);
  else if (isFormat)
    penFormatted(pen, body.messageFormat, *body.messageArguments);
  else
    penMessageOfNumber(pen, body.messageNumber);
  pdPenEndLine(pen);
}

void penCalled(PdPen& pen, const PdRecordBody& body) noexcept {
  const PdCalled& called = *body.called;
  pen.text("CALLED  : ");
  const std::size_t from = pen.written();
  if (called.functionId != 0) {
    penFunction(pen, called.functionId);
  } else {
    penName(pen, called.product);
    pen.text(", ");
    penName(pen, called.component);
    pen.text(", ");
    penName(pen, called.function);
  }
  if (body.osError.line == PdOsError::Line::kOfCalled) {
    pen.padTo(from, kCalledColumns - 1);
    pen.text(" OSERR: ");
    pdPenOsError(pen, body.osError.number);
  }
  pen.newLine();
}

void penOsErrorSection(PdPen& pen, const PdRecordBody& body) noexcept {
  using Line = PdOsError::Line;
  if (body.osError.line == Line::kNone || (body.osError.line == Line::kOfCalled && body.called != nullptr)) return;
  pen.text("OSERR   : ");
  pdPenOsError(pen, body.osError.number);
  pdPenOsErrorText(pen, body.osError.number);
  pen.newLine();
}

void penZrc(PdPen& pen, SqlzZrc zrc) noexcept {
  const std::size_t room = pen.room();
  const auto characters = static_cast<std::size_t>(pdZRCGetDescription(zrc, pen.next(), room + 1) - pen.next());
  pen.advance(characters, characters < room);
}

void penMarker(PdPen& pen, std::int32_t number) noexcept {
  const auto* row = std::find_if(std::begin(kMarkers), std::end(kMarkers),
                                 [number](const MarkerRow& marker) { return marker.number == number; });
  pen.text("MARKER=");
  pen.signedDecimal(number);
  if (row == std::end(kMarkers)) return pen.text("=Unknown");
  pen.character('=');
  pen.text(row->name);
  pen.text(" \"");
  pen.text(row->text);
  pen.character('"');
}

void penCode(PdPen& pen, PdCodeKind kind, std::int64_t code) noexcept {
  const auto narrow = static_cast<std::int32_t>(code);
  if (kind == PdCodeKind::kNone) return;
  if (kind == PdCodeKind::kZrc) return penZrc(pen, narrow);
  if (kind == PdCodeKind::kEcf) {
    pen.text("ECF=0x");
    pen.hex(static_cast<std::uint32_t>(narrow), 1);
    pen.character('=');
    pen.signedDecimal(narrow);
  } else if (kind == PdCodeKind::kMarker) {
    penMarker(pen, narrow);
  } else {
    pen.text("CA RC= ");
    pen.decimal(static_cast<std::uint32_t>(narrow));
  }
  pen.newLine();
}

void penReturnCode(PdPen& pen, const PdRecordBody& body, PdRecordMemory* memory) noexcept {
  if (memory == nullptr || body.codeKind != PdCodeKind::kZrc) return penCode(pen, body.codeKind, body.code);
  const auto zrc = static_cast<SqlzZrc>(body.code);
  const bool isCurrent = memory->zrc == zrc && memory->isWide == pdWideMessages();
  memory->zrc = zrc;
  memory->isWide = pdWideMessages();
  penKept(pen, &memory->description, isCurrent, [&] { penZrc(pen, zrc); });
}

void penSections(PdPen& pen, const PdRecordBody& body, PdRecordMemory* memory) noexcept {
  penMessage(pen, body);
  if (body.called != nullptr) penCalled(pen, body);
  if (body.codeKind != PdCodeKind::kNone) {
    pen.text("RETCODE : ");
    penReturnCode(pen, body, memory);
  }
  penOsErrorSection(pen, body);
  if (!body.impact.empty()) {
    pen.text("IMPACT  : ");
    penTextLine(pen, body.impact);
  }
  if (!body.object.empty()) {
    pen.text("OBJECT  : ");
    penTextLine(pen, body.object);
  }
  for (std::size_t i = 0; i < body.sectionCount; ++i) penSection(pen, body.sections[i]);
}

// ---- body: dump files, items, call stack --------------------------------------------------------------------------

void penDumpFile(PdPen& pen, const PdRecordBody& body) noexcept {
  if (!body.dumpFile.empty()) {
    pen.text("Dump File: ");
    penField(pen, body.dumpFile);
    pen.newLine();
  }
  if (!body.dumpError.empty()) {
    pen.text("Dump with error: ");
    penField(pen, body.dumpError);
    pen.text(" ( rc = 0x");
    const std::size_t from = pen.written();
    pen.hex(static_cast<std::uint32_t>(body.dumpCode), 1);
    char* const end = pen.next();
    std::for_each(end - (pen.written() - from), end, [](char& c) { c = c >= 'A' ? static_cast<char>(c + 32) : c; });
    pen.text(" )");
    pen.newLine();
  }
}

void penItemLabel(PdPen& pen, bool isArgument, std::size_t number) noexcept {
  pen.text(isArgument ? "ARG  #" : "DATA #");
  pen.decimalLeft(number, 2);
  pen.text(": ");
}

void penDumped(PdPen& pen, const PdItem& item) noexcept {
  pen.text("Dumped object of size ");
  pen.decimal(item.size);
  pen.text(" bytes at offset ");
  if (item.dump->offset < 0)
    pen.text("unknown");
  else
    pen.signedDecimal(item.dump->offset);
  pen.text(", ");
  pen.decimal(item.dump->writtenBytes);
  pen.text(" bytes");
  pen.newLine();
  if (item.dump->file.empty()) return;
  penField(pen, item.dump->file);
  pen.newLine();
}

void penNotDumped(PdPen& pen, const PdItem& item) noexcept {
  pen.text("Object [");
  penField(pen, item.dump->object);
  pen.text("] not dumped");
  pen.newLine();
  pen.text("Address: 0x");
  pen.hex(reinterpret_cast<std::uintptr_t>(item.data), 8);
  pen.text(" Size: ");
  pen.decimal(item.size);
  pen.text(" Reason: ");
  penField(pen, item.dump->reason);
  pen.newLine();
}

void penItem(PdPen& pen, const PdItem& item, std::size_t number) noexcept {
  penItemLabel(pen, item.isArgument, number);
  if (item.dump != nullptr) return item.dump->dumped ? penDumped(pen, item) : penNotDumped(pen, item);
  pdPenTypeDescription(pen, item.type);
  pen.text(", ");
  pen.decimal(item.size);
  pen.text(" bytes");
  pen.newLine();
  pdPenItemValue(pen, item.type, item.size, item.data);
}

void penItems(PdPen& pen, const PdRecordBody& body) noexcept {
  std::size_t numbers[2] = {0, 0};  // of items, of arguments
  if (!body.preformatted.empty()) {
    pen.text("DATA #1 : <preformatted>\r\n");
    pen.text(body.preformatted);
    return pdPenEndLine(pen);
  }
  if (body.itemCount == 0 && body.itemsAnnounced) pen.text("DATA #1 : <Empty variable list>\r\n");
  for (std::size_t i = 0; i < body.itemCount && !pen.isCut(); ++i)
    penItem(pen, body.items[i], ++numbers[body.items[i].isArgument ? 1 : 0]);
}

std::string_view fileNameOf(std::string_view path) noexcept {
  const std::size_t slash = path.rfind('/');
  return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

void penFrame(PdPen& pen, const CallStack& stack, std::uint32_t index) noexcept {
  const CallStackFrame& frame = stack.frames[index];
  std::string_view symbol = "?";
  if (frame.symbol != nullptr)
    symbol = frame.symbol;
  else if (frame.module >= 0 && *stack.modules[frame.module].path != '\0')
    symbol = fileNameOf(stack.modules[frame.module].path);
  pen.text(" [");
  pen.decimal(index);
  pen.text("] 0x");
  pen.hex(frame.address, 8);
  pen.character(' ');
  penField(pen, symbol);
  pen.text(" + 0x");
  pen.hex(frame.displacement, 1);
  pen.newLine();
}

// Where a file was loaded and which build of it: with these, and the addresses, source lines are found elsewhere.
void penModule(PdPen& pen, const CallStackModule& module) noexcept {
  pen.text(" 0x");
  pen.hex(module.base, 8);
  pen.character(' ');
  penField(pen, *module.path != '\0' ? module.path : "(no file)");
  if (module.buildIdBytes != 0) pen.text(", build id ");
  for (std::uint32_t i = 0; i < module.buildIdBytes; ++i) pen.hex(module.buildId[i], 2);
  pen.newLine();
}

void penCallStack(PdPen& pen, const PdRecordBody& body) noexcept {
  const CallStack& stack = *body.callStack;
  pen.text(body.callStackLongLabel ? "CALL STACK: \r\n" : "CALLSTCK: \r\n");
  for (std::uint32_t i = 0; i < stack.frameCount; ++i) penFrame(pen, stack, i);
  if (stack.isCut) pen.text(" (more frames)\r\n");
  for (std::uint32_t i = 0; i < stack.moduleCount; ++i) penModule(pen, stack.modules[i]);
}

void penBody(PdPen& pen, const PdRecordBody& body, PdRecordMemory* memory) noexcept {
  penSections(pen, body, memory);
  penDumpFile(pen, body);
  pdPenText(pen, body.remark);
  penItems(pen, body);
  pdPenText(pen, body.note);
  if (body.callStack != nullptr) penCallStack(pen, body);
}

PdRecordText formatRecord(const PdRecordHeader& header, const PdRecordBody& body, std::size_t identifierColumns,
                          char* buffer, std::size_t bytes, PdRecordMemory* memory) noexcept {
  if (buffer == nullptr || bytes < kRecordBytesLeast) return {};
  PdPen pen(buffer, bytes);
  penHeader(pen, header, identifierColumns, memory);
  penBody(pen, body, memory);
  if (!pen.isCut()) return {pen.finish({}), false};
  char text[64];
  PdPen mark(text, sizeof text);
  mark.text("\r\n<Record cut after ");
  mark.decimal(bytes - 1);
  mark.text(" bytes>\r\n");
  return {pen.finish({text, mark.written()}), true};
}

}  // namespace

std::string_view pdLevelName(std::uint32_t level) noexcept {
  return level - 1 < std::size(kLevelNames) ? kLevelNames[level - 1] : "Unknown";
}

PdCodeKind pdCodeKindOfFlags(std::uint64_t flags) noexcept {
  const std::uint64_t kind = flags & PD_LOG_RC_KIND_MASK;
  return kind <= PD_LOG_RC_CA ? static_cast<PdCodeKind>(kind) : PdCodeKind::kNone;
}

PdRecordText pdFormatRecord(const PdRecordHeader& header, const PdRecordBody& body, char* buffer, std::size_t bytes,
                            PdRecordMemory* memory) noexcept {
  return formatRecord(header, body, PD_IDENTIFIER_COLUMNS, buffer, bytes, memory);
}

PdRecordText pdFormatDumpRecord(const PdRecordHeader& header, const PdRecordBody& body, char* buffer,
                                std::size_t bytes) noexcept {
  return formatRecord(header, body, PD_DUMP_IDENTIFIER_COLUMNS, buffer, bytes, nullptr);
}

bool pdStampIdentifier(char* record, std::uint64_t fileOffset, std::size_t length) noexcept {
  if (fileOffset > kOffsetMost - PD_RECORD_LEAD_BYTES || length > PD_RECORD_BYTES) return false;
  char identifier[PD_IDENTIFIER_COLUMNS];
  char* const end = identifier + PD_DUMP_IDENTIFIER_COLUMNS;
  std::memset(identifier, ' ', sizeof identifier);
  identifier[0] = PD_TYPE_LETTER;
  char* const separator = std::to_chars(identifier + 1, end, fileOffset + PD_RECORD_LEAD_BYTES).ptr;
  *separator = PD_SEPARATOR_LETTER;
  std::to_chars(separator + 1, end, length - PD_RECORD_LEAD_BYTES);
  // With the blanks behind it: a longer one may have stood there.
  std::memcpy(record + PD_RECORD_LEAD_BYTES + PD_TIME_STAMP_COLUMNS, identifier, PD_DUMP_IDENTIFIER_COLUMNS);
  return true;
}

std::size_t pdDescribeCode(PdCodeKind kind, std::int64_t code, char* buffer, std::size_t bytes) noexcept {
  if (buffer == nullptr || bytes == 0) return 0;
  PdPen pen(buffer, bytes);
  penCode(pen, kind, code);
  return pen.finish({});
}

}  // namespace vek
