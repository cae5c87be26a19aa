// Values of diagnostic paths: split patterns, and the directory that a value names for a member.
#include "diag/base/pddiagpath_value.h"

#include <cstring>

#include "diag/base/pdpen.h"
#include "diag/base/traced.h"
#include "platform/dirs.h"
#include "platform/osse.h"
#include "platform/ports.h"
#include "veksys/codes.h"
#include "veksys/host.h"

namespace vek {
namespace {

constexpr std::uint32_t kWarning = 3;

struct Pattern {
  std::string_view text;
  std::uint32_t type;
};

constexpr Pattern kPatterns[] = {
    {"$h", PD_DIAGPATH_BY_HOST},
    {"$n", PD_DIAGPATH_BY_NODE},
    {"$m", PD_DIAGPATH_BY_MEMBER},
    {"$h$n", PD_DIAGPATH_BY_HOST | PD_DIAGPATH_BY_NODE},
    {"$h$m", PD_DIAGPATH_BY_HOST | PD_DIAGPATH_BY_MEMBER},
};
constexpr char kAcceptedPatterns[] = "$h, $n, $m, $h$n and $h$m";

std::string_view trimmed(std::string_view text) noexcept {
  while (!text.empty() && text.front() == ' ') text.remove_prefix(1);
  while (!text.empty() && text.back() == ' ') text.remove_suffix(1);
  return text;
}

std::string_view withoutSeparatorsAtEnd(std::string_view text) noexcept {
  while (!text.empty() && text.back() == PD_PATH_SEPARATOR) text.remove_suffix(1);
  return text;
}

std::uint32_t typeOf(std::string_view pattern) noexcept {
  for (const Pattern& row : kPatterns)
    if (row.text == pattern) return row.type;
  return PD_DIAGPATH_UNKNOWN;
}

bool setBelowInstance(const char* name, PdPathName* out) noexcept {
  char path[PATH_BYTES];
  const std::size_t length = directoryPath(Directory::kInstance, path, sizeof path);
  if (length == 0 || length + std::strlen(name) + 1 >= sizeof path) return out->set("");
  ossSnprintf(path + length, sizeof path - length, "%c%s", PD_PATH_SEPARATOR, name);
  return out->set(path);
}

// The path that stands before the pattern, the default directory when there is none.
SqlzZrc setPlain(std::string_view base, PdPathName* out) noexcept {
  if (base.empty()) return pdi_defaultDiagPath(out) ? 0 : SQLO_PATH_TOO_LONG;
  if (base.front() != PD_PATH_SEPARATOR) return SQLO_PATH_NOT_ABSOLUTE;
  char path[PATH_BYTES];
  if (base.size() >= sizeof path) return SQLO_PATH_TOO_LONG;
  std::memcpy(path, base.data(), base.size());
  path[base.size()] = '\0';
  return out->set(path) ? 0 : SQLO_PATH_TOO_LONG;
}

// A host name becomes part of a directory's name.
bool isUsableHost(const char* host) noexcept {
  if (host[0] == '\0') return false;
  for (; *host != '\0'; ++host)
    if (*host == PD_PATH_SEPARATOR || static_cast<unsigned char>(*host) <= ' ') return false;
  return true;
}

constexpr EcfFunctionId kSplit = FID_pdDiagpathSplitGetByNode;

void noteNoHost(const char* host, PdPathNotes* notes) noexcept {
  notes->add(kSplit, 20, SQLT_DIAGPATH_SPLIT_MISSING, "The specified host, %s,does not exist in veknodes.cfg", host);
}

// Finds the member that a directory is asked for; false with a note when there is none.
bool findMember(const PdMemberChoice& choice, PortMember* out, PdPathNotes* notes) noexcept {
  MemberAnswer answer = MemberAnswer::kFound;
  if (choice.host != nullptr && choice.node != PD_DIAGPATH_NO_NODE) {
    answer = g_ports.member(ANY_PARTITION, choice.host, out);
    if (answer == MemberAnswer::kUnknown) {
      noteNoHost(choice.host, notes);
      return false;
    }
  }
  if (answer == MemberAnswer::kFound) answer = g_ports.member(choice.node, choice.host, out);
  if (answer == MemberAnswer::kUnreadable) {
    notes->add(kSplit, 10, SQLT_DIAGPATH_SPLIT_MISSING, "Failed to read veknodes.cfg");
  } else if (answer == MemberAnswer::kUnknown && choice.host != nullptr && choice.node == PD_DIAGPATH_NO_NODE) {
    noteNoHost(choice.host, notes);
  } else if (answer == MemberAnswer::kUnknown) {
    notes->add(kSplit, 30, SQLT_DIAGPATH_SPLIT_MISSING, "The specified node number, %d ,does not exist in veknodes.cfg",
               choice.node);
  } else if (!isUsableHost(out->host)) {
    noteNoHost(out->host, notes);
    return false;
  }
  return answer == MemberAnswer::kFound;
}

void putNumbered(PdPen* pen, std::string_view name, std::int16_t number) noexcept {
  pen->text(name);
  pen->signedDecimalZeros(number, 4);
  pen->character(PD_PATH_SEPARATOR);
}

bool setSplit(std::uint32_t type, const PortMember& member, PdPathName* out) noexcept {
  char path[2 * PD_DIAGPATH_BYTES + sizeof member.host];
  PdPen pen(path, sizeof path);
  pen.text(out->path);
  if ((type & PD_DIAGPATH_BY_HOST) != 0) {
    pen.text("HOST_");
    pen.text(member.host);
    pen.character(PD_PATH_SEPARATOR);
  }
  if ((type & PD_DIAGPATH_BY_NODE) != 0) putNumbered(&pen, "NODE", member.partition);
  if ((type & PD_DIAGPATH_BY_MEMBER) != 0) putNumbered(&pen, "DIAG", member.partition);
  pen.finish({});
  return out->set(path);
}

void notePlainInstead(SqlzZrc zrc, const PdPathName& plain, PdPathNotes* notes) noexcept {
  notes->add(kSplit, 60, zrc, "Problem of getting split-diagpath, using following diagpath instead: %s", plain.path);
}

}  // namespace

void PdPathNotes::add(EcfFunctionId functionId, std::uint32_t probe, SqlzZrc zrc, const char* format, ...) noexcept {
  if (count == std::size(notes)) return;
  Note& note = notes[count++];
  note.functionId = functionId;
  note.probe = probe;
  note.zrc = zrc;
  std::va_list arguments;
  va_start(arguments, format);
  ossVsnprintf(note.text, sizeof note.text, format, arguments);
  va_end(arguments);
}

void PdPathNotes::report() const noexcept {
  for (std::uint32_t i = 0; i < count; ++i)
    g_ports.reportEvent({notes[i].functionId, notes[i].probe, kWarning, notes[i].zrc, notes[i].text});
}

bool PdPathName::set(const char* text) noexcept {
  const std::string_view name = withoutSeparatorsAtEnd(text);
  length = 0;
  path[0] = '\0';
  if (*text == '\0' || name.size() + 1 >= sizeof path) return false;
  std::memmove(path, name.data(), name.size());
  length = name.size();
  path[length++] = PD_PATH_SEPARATOR;
  path[length] = '\0';
  return true;
}

PdDiagPathParts pdi_diagPathParts(std::string_view value) noexcept {
  value = trimmed(value);
  const std::size_t blank = value.rfind(' ');
  const std::size_t lastWord = blank == std::string_view::npos ? 0 : blank + 1;
  const std::string_view pattern = withoutSeparatorsAtEnd(value.substr(lastWord));
  if (pattern.empty() || pattern.front() != '$') return {value, {}, PD_DIAGPATH_PLAIN};
  return {trimmed(value.substr(0, lastWord)), pattern, typeOf(pattern)};
}

bool pdi_defaultDiagPath(PdPathName* out) noexcept { return setBelowInstance("diag", out); }
bool pdi_defaultAltDiagPath(PdPathName* out) noexcept { return setBelowInstance("diag_alternate", out); }

SqlzZrc pdi_nameDiagPath(std::string_view value, const PdMemberChoice& member, PdPathName* out,
                         PdPathNotes* notes) noexcept {
  const PdDiagPathParts parts = pdi_diagPathParts(value);
  const SqlzZrc zrc = setPlain(parts.base, out);
  if (zrc != 0 || parts.type == PD_DIAGPATH_PLAIN) return zrc;
  if (parts.type == PD_DIAGPATH_UNKNOWN) {
    notes->add(kSplit, 50, SQLT_DIAGPATH_PATTERN_UNKNOWN, "The split pattern %.*s is not known; accepted are %s",
               static_cast<int>(parts.pattern.size()), parts.pattern.data(), kAcceptedPatterns);
    notePlainInstead(SQLT_DIAGPATH_PATTERN_UNKNOWN, *out, notes);
    return SQLT_DIAGPATH_PATTERN_UNKNOWN;
  }
  PortMember found;
  if (findMember(member, &found, notes)) return setSplit(parts.type, found, out) ? 0 : SQLO_PATH_TOO_LONG;
  notePlainInstead(SQLT_DIAGPATH_SPLIT_MISSING, *out, notes);
  return SQLT_DIAGPATH_SPLIT_MISSING;
}

SqlzZrc pdi_nameOwnDiagPath(std::string_view value, PdPathName* out, PdPathNotes* notes) noexcept {
  return pdi_nameDiagPath(value, {nullptr, vekInstanceControl()->partition}, out, notes);
}

}  // namespace vek

using namespace vek;

namespace {

SqlzZrc giveOut(SqlzZrc zrc, const PdPathName& name, char* buffer, std::size_t bytes) noexcept {
  buffer[0] = '\0';
  if (name.length >= bytes) return SQLO_PATH_TOO_LONG;
  std::memcpy(buffer, name.path, name.length + 1);
  return zrc;
}

// A member that is chosen for a value that has one directory for all.
SqlzZrc noteNotSplit(const PdMemberChoice& member, PdPathNotes* notes) noexcept {
  if (member.node != PD_DIAGPATH_NO_NODE)
    notes->add(FID_pdDiagpathSplitGetByNode, 70, SQLT_DIAGPATH_SPLIT_MISSING,
               "Node number ( %d ) is specified when DIAGPATH is not splitted", member.node);
  if (member.host != nullptr)
    notes->add(FID_pdDiagpathSplitGetByNode, 80, SQLT_DIAGPATH_SPLIT_MISSING,
               "Host ( %s ) is specified when DIAGPATH is not splitted", member.host);
  return notes->count == 0 ? 0 : SQLT_DIAGPATH_SPLIT_MISSING;
}

SqlzZrc splitGet(const char* value, const PdMemberChoice& member, char* buffer, std::size_t bytes) noexcept {
  PdPathName name;
  PdPathNotes notes;
  SqlzZrc zrc = 0;
  const bool isChosen = member.host != nullptr || member.node != PD_DIAGPATH_NO_NODE;
  zrc = isChosen ? pdi_nameDiagPath(value, member, &name, &notes) : pdi_nameOwnDiagPath(value, &name, &notes);
  if (zrc == 0 && pdDiagpathType(value) == PD_DIAGPATH_PLAIN) zrc = noteNotSplit(member, &notes);
  zrc = giveOut(zrc, name, buffer, bytes);
  notes.report();
  return zrc;
}

}  // namespace

std::uint32_t pdDiagpathType(const char* value) noexcept {
  return value == nullptr ? PD_DIAGPATH_PLAIN : pdi_diagPathParts(value).type;
}

bool pdIsDiagpathSplit(const char* value) noexcept {
  const std::uint32_t type = pdDiagpathType(value);
  return type != PD_DIAGPATH_PLAIN && type != PD_DIAGPATH_UNKNOWN;
}

SqlzZrc pdDiagpathSplitGet(const char* value, char* buffer, std::size_t bytes) noexcept {
  VekTrace<FID_pdDiagpathSplitGet> trace;
  if (value == nullptr || buffer == nullptr || bytes == 0) return trace.exit(SQLO_INV_PARM);
  return trace.exit(splitGet(value, {nullptr, PD_DIAGPATH_NO_NODE}, buffer, bytes));
}

SqlzZrc pdDiagpathSplitGetByNode(const char* value, const char* host, std::int16_t node, char* buffer,
                                 std::size_t bytes) noexcept {
  VekTrace<FID_pdDiagpathSplitGetByNode> trace;
  if (value == nullptr || buffer == nullptr || bytes == 0) return trace.exit(SQLO_INV_PARM);
  const bool hasHost = host != nullptr && host[0] != '\0';
  return trace.exit(splitGet(value, {hasHost ? host : nullptr, node}, buffer, bytes));
}
