// Common Trace Format 1.8: a description of the records in its own language, and one stream of packets.
//
// All fields are little-endian and byte-aligned. Functions and return codes are enumerations, so that readers show them
// by name; those that occurred are known when the stream is complete, so the description is written last.
#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <map>
#include <set>
#include <string>

#include "failure.h"
#include "file_output.h"
#include "trace_export.h"
#include "trace_items.h"
#include "veksys/pd_types.h"

namespace veksys {
namespace {

constexpr std::uint32_t kMagic = 0xC1FC1FC1;
constexpr std::size_t kPacketBytes = 256U << 10;
constexpr std::size_t kCodesMost = 8192;
// Of a packet: magic, stream, first and last moment, content and packet size in bits, records missing so far.
constexpr std::size_t kPacketHead = 4 + 4 + 5 * 8;

enum class ItemTag : std::uint8_t { kText = 0, kUnsigned = 1, kSigned = 2, kBytes = 3 };

// What follows the event context in each kind of event, in the description's language.
struct EventRow {
  SqltRecordKind kind;
  const char* fields;
};
constexpr EventRow kEvents[] = {
    {SqltRecordKind::kEntry, "function_t function; uint64_t unit;"},
    {SqltRecordKind::kExit, "function_t function; code_t rc;"},
    {SqltRecordKind::kData, "function_t function; uint32_t probe;"},
    {SqltRecordKind::kError, "function_t function; uint32_t probe; code_t rc;"},
    {SqltRecordKind::kMarker, "function_t function; uint32_t probe;"},
    {SqltRecordKind::kEvent, "function_t function; uint32_t probe; uint64_t number;"},
    {SqltRecordKind::kCorrelator, "function_t function; uint32_t probe; uint64_t correlator;"},
    {SqltRecordKind::kTranslation, "function_t function; uint32_t probe; code_t rc;"},
};
constexpr const char* kGapFields = "gap_t reason; uint64_t missing_records;";
constexpr const char* kItemFields = " uint32_t item_count; struct item items[item_count];";

constexpr const char* kTypes = R"(/* CTF 1.8 */
typealias integer { size = 8; align = 8; signed = false; } := uint8_t;
typealias integer { size = 32; align = 8; signed = false; } := uint32_t;
typealias integer { size = 32; align = 8; signed = true; } := int32_t;
typealias integer { size = 64; align = 8; signed = false; } := uint64_t;
typealias integer { size = 64; align = 8; signed = true; } := int64_t;
trace {
  major = 1;
  minor = 8;
  byte_order = le;
  packet.header := struct { uint32_t magic; uint32_t stream_id; };
};
)";

constexpr const char* kStream = R"(clock {
  name = realtime;
  description = "nanoseconds since 1970 UTC";
  freq = 1000000000;
  absolute = true;
};
typealias integer { size = 64; align = 8; signed = false; map = clock.realtime.value; } := moment_t;
struct item {
  enum : uint8_t { text = 0, number = 1, signed_number = 2, bytes = 3 } form;
  pd_type_t type;
  uint32_t size;
  variant <form> {
    string text;
    uint64_t number;
    int64_t signed_number;
    struct { uint32_t length; uint8_t data[length]; } bytes;
  } value;
};
stream {
  id = 0;
  packet.context := struct {
    moment_t timestamp_begin;
    moment_t timestamp_end;
    uint64_t content_size;
    uint64_t packet_size;
    uint64_t events_discarded;
  };
  event.header := struct { uint8_t id; moment_t timestamp; };
  event.context := struct {
    uint32_t process;
    uint32_t thread;
    int32_t partition;
    string process_name;
    string thread_name;
  };
};
)";

// A name as it may stand between quotes in the description.
std::string inQuotes(std::string_view name) {
  std::string text = "\"";
  for (const char c : name) text += c >= ' ' && c <= '~' && c != '"' && c != '\\' ? c : '?';
  return text + "\"";
}

class CtfView : public TraceView {
 public:
  CtfView(TracePass& pass, FileOutput& file) : pass_(pass), file_(file) {}

  void see(const TraceSight& sight) override {
    if (!sight.shown) return;
    if (sight.record.kind == SqltRecordKind::kGap) discarded_ += sight.record.gapRecords;
    if (file_.out().size() == 0) beginPacket(sight.record.realtimeNs);
    last_ = std::max(last_, sight.record.realtimeNs);
    event(sight);
    if (file_.out().size() >= kPacketBytes) endPacket();
  }

  std::uint64_t finish() {
    if (file_.out().size() != 0) endPacket();
    return file_.finish();
  }

  const std::map<EcfFunctionId, const TraceFunction*>& functions() const noexcept { return functions_; }
  const std::set<std::int64_t>& codes() const noexcept { return codes_; }

 private:
  template <class T>
  void number(T value) {
    std::memcpy(file_.out().room(sizeof value), &value, sizeof value);
    file_.out().commit(sizeof value);
  }

  void string(std::string_view text) {
    putSafe(file_.out(), text);
    file_.out().put('\0');
  }

  // The head is filled in when the packet is complete.
  void beginPacket(std::int64_t moment) {
    last_ = std::max(last_, moment);
    first_ = last_;
    file_.out().fill('\0', kPacketHead);
  }

  void endPacket() {
    const std::uint64_t bits = file_.out().size() * 8;
    const std::uint32_t ids[] = {kMagic, 0};
    const std::uint64_t words[] = {static_cast<std::uint64_t>(first_), static_cast<std::uint64_t>(last_), bits, bits,
                                   discarded_};
    char* head = file_.out().room(0) - file_.out().size();
    std::memcpy(head, ids, sizeof ids);
    std::memcpy(head + sizeof ids, words, sizeof words);
    file_.flush();
  }

  void event(const TraceSight& sight) {
    number(static_cast<std::uint8_t>(sight.record.kind));
    number(static_cast<std::uint64_t>(last_));
    number(sight.thread.who.processId);
    number(sight.thread.who.threadId);
    number(sight.thread.who.partition);
    string(sight.thread.who.processName);
    string(sight.thread.who.threadName);
    if (sight.record.kind == SqltRecordKind::kGap) {
      number(static_cast<std::uint8_t>(sight.record.gapReason));
      number(sight.record.gapRecords);
      return;
    }
    functions_.emplace(sight.function.id, &sight.function);
    number(sight.function.id);
    fields(sight.record);
    number(sight.record.itemCount);
    for (std::uint32_t i = 0; i < sight.record.itemCount; ++i) item(sight.record.items[i]);
  }

  void fields(const SqltTraceRecord& record) {
    const bool hasProbe = record.kind != SqltRecordKind::kEntry && record.kind != SqltRecordKind::kExit;
    const bool hasCode = record.kind == SqltRecordKind::kExit || record.kind == SqltRecordKind::kError ||
                         record.kind == SqltRecordKind::kTranslation;
    const bool hasValue = record.kind != SqltRecordKind::kData && record.kind != SqltRecordKind::kMarker;
    if (hasProbe) number(record.probe);
    if (hasValue) number(record.value);
    if (hasCode && codes_.size() < kCodesMost && pass_.codes().find(record.value) != nullptr)
      codes_.insert(record.value);
  }

  void item(const SqltTraceItem& item) {
    const ItemKind kind = itemType(item.type).kind;
    std::uint64_t value = 0;
    const bool isText = kind == ItemKind::kText || kind == ItemKind::kCharacter;
    const bool isNumber = !isText && kind != ItemKind::kBytes && itemInteger(item, kind == ItemKind::kSigned, &value);
    const ItemTag tag = isText                      ? ItemTag::kText
                        : !isNumber                 ? ItemTag::kBytes
                        : kind == ItemKind::kSigned ? ItemTag::kSigned
                                                    : ItemTag::kUnsigned;
    number(tag);
    number(item.type);
    number(item.size);
    std::string_view bytes = itemBytes(item);
    if (isNumber) return number(value);
    if (isText) return string(bytes.substr(0, bytes.find('\0')));
    number(static_cast<std::uint32_t>(bytes.size()));
    file_.out().put(bytes);
  }

  TracePass& pass_;
  FileOutput& file_;
  std::int64_t first_ = 0;
  std::int64_t last_ = 0;
  std::uint64_t discarded_ = 0;
  std::map<EcfFunctionId, const TraceFunction*> functions_;
  std::set<std::int64_t> codes_;
};

// ---- the description --------------------------------------------------------------------------------------------

void putEnumerations(Output& out, TracePass& pass, const CtfView& view) {
  out.put("typealias enum : uint32_t {\n");
#define PD_TYPE(number, name, description, print) out.put("  " #name " = " #number ",\n");
#include "veksys/pd_types.def"
#undef PD_TYPE
  out.put("} := pd_type_t;\ntypealias enum : uint8_t { ");
  for (std::uint8_t reason = 0; reason <= static_cast<std::uint8_t>(SqltGapReason::kUnreadable); ++reason)
    out.put(std::string(gapName(static_cast<SqltGapReason>(reason))) + " = " + std::to_string(reason) + ", ");
  out.put("} := gap_t;\ntypealias enum : uint32_t {\n  none = 0,\n");
  for (const auto& [id, function] : view.functions())
    out.put("  " + inQuotes(function->name) + " = " + std::to_string(id) + ",\n");
  out.put("} := function_t;\ntypealias enum : int64_t {\n  success = 0,\n");
  for (const std::int64_t code : view.codes())
    if (code != 0) out.put("  " + inQuotes(pass.codes().find(code)->name) + " = " + std::to_string(code) + ",\n");
  out.put("} := code_t;\n");
}

void putEvent(Output& out, std::string_view name, unsigned id, const std::string& fields) {
  out.put("event { name = " + inQuotes(name) + "; id = " + std::to_string(id) + "; stream_id = 0; fields := struct { " +
          fields + " }; };\n");
}

void writeDescription(const std::string& path, TracePass& pass, const CtfView& view) {
  FileOutput file(path);
  Output& out = file.out();
  out.put(kTypes);
  out.put("env { tracer_name = \"veksys\"; instance = " + inQuotes(pass.info().instance) + "; };\n");
  putEnumerations(out, pass, view);
  out.put(kStream);
  for (const EventRow& row : kEvents)
    putEvent(out, kindName(row.kind), static_cast<unsigned>(row.kind), std::string(row.fields) + kItemFields);
  putEvent(out, kindName(SqltRecordKind::kGap), static_cast<unsigned>(SqltRecordKind::kGap), kGapFields);
  file.finish();
}

bool isEmptyDirectory(const std::string& path) {
  DIR* directory = ::opendir(path.c_str());
  if (directory == nullptr) return false;
  bool empty = true;
  while (const dirent* entry = ::readdir(directory))
    if (::strcmp(entry->d_name, ".") != 0 && ::strcmp(entry->d_name, "..") != 0) empty = false;
  ::closedir(directory);
  return empty;
}

void makeDirectory(const std::string& path) {
  if (::mkdir(path.c_str(), 0700) == 0) return;
  if (errno != EEXIST) sayNo("The directory \"" + path + "\" cannot be created: " + ::strerror(errno) + ".");
  if (!isEmptyDirectory(path)) sayNo("\"" + path + "\" is there already and not an empty directory; give a new one.");
}

}  // namespace

std::uint64_t exportCtfStream(TracePass& pass, const std::string& file) {
  FileOutput stream(file);
  CtfView view(pass, stream);
  pass.run(view);
  return view.finish();
}

std::uint64_t exportCtf(TracePass& pass, const std::string& directory) {
  makeDirectory(directory);
  FileOutput stream(directory + "/stream");
  CtfView view(pass, stream);
  pass.run(view);
  const std::uint64_t bytes = view.finish();
  writeDescription(directory + "/metadata", pass, view);
  return bytes;
}

}  // namespace veksys
