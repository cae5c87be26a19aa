#include "diag/base/pdnewfile.h"

#include <algorithm>

#include "diag/base/pditems.h"
#include "diag/base/pdpen.h"
#include "platform/system_facts.h"
#include "veksys/pd_types.h"

namespace vek {
namespace {

constexpr std::size_t kNameColumns = 20;
constexpr std::size_t kLineColumns = 110;  // of a list that goes on for several lines
constexpr std::string_view kNote =
    "Information in this record is only valid at the time when this file was\r\n"
    "created (see this record's time stamp)\r\n";

void penName(PdPen& pen, std::string_view name) noexcept {
  const std::size_t from = pen.written();
  pen.text(name);
  pen.padTo(from, kNameColumns);
  pen.text(": ");
}

void penTextFact(PdPen& pen, std::string_view name, std::string_view value) noexcept {
  if (value.empty()) return;
  penName(pen, name);
  pdPenText(pen, value);
  pdPenEndLine(pen);
}

void penCount(PdPen& pen, std::string_view name, std::uint64_t value, std::string_view unit) noexcept {
  if (value == 0) return;
  penName(pen, name);
  pen.decimal(value);
  if (!unit.empty()) pen.character(' ');
  pen.text(unit);
  pen.newLine();
}

// A list of words, on as many lines as it needs.
void penList(PdPen& pen, std::string_view name, std::string_view words) noexcept {
  if (words.empty()) return;
  penName(pen, name);
  std::size_t column = kNameColumns;
  while (!words.empty()) {
    const std::size_t end = std::min(words.find(' '), words.size());
    const std::string_view word = words.substr(0, end);
    words.remove_prefix(std::min(end + 1, words.size()));
    if (word.empty()) continue;
    if (column != kNameColumns && column + word.size() > kLineColumns) {
      pen.newLine();
      pen.fill(' ', kNameColumns + 2);
      column = kNameColumns;
    } else if (column != kNameColumns) {
      pen.character(' ');
    }
    pdPenText(pen, word);
    column += word.size() + 1;
  }
  pen.newLine();
}

void penProcessors(PdPen& pen, const SystemFacts& facts) noexcept {
  penTextFact(pen, "Processor", facts.processor);
  penCount(pen, "Processors online", facts.processorsOnline, "");
  penCount(pen, "Processors usable", facts.processorsUsable, "");
  penCount(pen, "Sockets", facts.sockets, "");
  penCount(pen, "Cores per socket", facts.coresPerSocket, "");
  penCount(pen, "Threads per core", facts.threadsPerCore, "");
  for (const CacheFacts& cache : facts.caches) {
    if (cache.level == 0) break;
    char name[64];
    PdPen label(name, sizeof name);
    label.text("Cache level ");
    label.decimal(cache.level);
    label.character(' ');
    label.text(cache.kind);
    penCount(pen, {name, label.finish({})}, cache.bytes, "bytes");
  }
  penList(pen, "Features", facts.features);
}

void penLimit(PdPen& pen, std::uint64_t value, std::string_view unit) noexcept {
  if (value == SYSTEM_FACTS_UNLIMITED) return pen.text("unlimited");
  pen.decimal(value);
  if (!unit.empty()) pen.character(' ');
  pen.text(unit);
}

void penMemory(PdPen& pen, const SystemFacts& facts) noexcept {
  penCount(pen, "Memory", facts.memoryBytes, "bytes");
  penCount(pen, "Memory available", facts.memoryAvailableBytes, "bytes");
  penName(pen, "Memory limit");
  penLimit(pen, facts.memoryLimitBytes, "bytes");
  pen.newLine();
  penCount(pen, "Swap", facts.swapBytes, "bytes");
  penCount(pen, "Page size", facts.pageBytes, "bytes");
}

void penLimits(PdPen& pen, const SystemFacts& facts) noexcept {
  for (std::size_t i = 0; i < facts.limitCount; ++i) {
    const LimitFacts& limit = facts.limits[i];
    char name[64];
    PdPen label(name, sizeof name);
    label.text("Limit ");
    label.text(limit.name);
    penName(pen, {name, label.finish({})});
    penLimit(pen, limit.soft, limit.unit);
    pen.text(" (hard ");
    penLimit(pen, limit.hard, limit.unit);
    pen.text(")\r\n");
  }
}

}  // namespace

std::size_t pdGatherNewFileText(char* text, std::size_t bytes) noexcept {
  SystemFacts facts;
  ossSystemFacts(&facts);
  PdPen pen(text, bytes);
  penTextFact(pen, "Host", facts.host);
  penTextFact(pen, "System", facts.system);
  penTextFact(pen, "Machine", facts.machine);
  penTextFact(pen, "C library", facts.libcVersion);
  penTextFact(pen, "Boot", facts.boot);
  penProcessors(pen, facts);
  penMemory(pen, facts);
  penLimits(pen, facts);
  return pen.finish("\r\n<Cut>\r\n");
}

void pdMakeNewFileBody(const char* text, std::size_t length, PdNewFileBody* out) noexcept {
  *out = {};
  out->start = {"START", "New Diagnostic Log file"};
  out->item = {PD_TYPE_STRING, static_cast<std::uint32_t>(length), text};
  out->body.sections = &out->start;
  out->body.sectionCount = 1;
  out->body.items = &out->item;
  out->body.itemCount = 1;
  out->body.remark = kNote;
}

}  // namespace vek
