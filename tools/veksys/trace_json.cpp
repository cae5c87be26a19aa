// Records as JSON.
#include "trace_items.h"
#include "trace_views.h"

namespace veksys {

void putMomentMembers(JsonLine& json, std::int64_t moment) {
  json.plainMember("time", [&](Text& text) { ClockText::iso(text, moment); });
  json.member("time_ns", moment);
}

std::string threadMembers(const SqltTraceThread& who) {
  Text text;
  JsonLine json;
  json.beginFragment(text);
  json.member("process", who.processId);
  json.key("process_name");
  json.safe(who.processName);
  json.member("thread", who.threadId);
  json.key("thread_name");
  json.safe(who.threadName);
  json.member("partition", who.partition);
  return std::string(text.view());
}

std::string functionMembers(const TraceFunction& function) {
  Text text;
  JsonLine json;
  json.beginFragment(text);
  json.member("function", std::string_view(function.name));
  json.plainMember("function_id", [&](Text& id) { id.hexCode(function.id); });
  json.member("component", std::string_view(function.component));
  return std::string(text.view());
}

void putCodeMembers(JsonLine& json, CodeNames& codes, std::string_view name, std::int64_t value) {
  json.object(name);
  if (value == 0) {
    json.fragment(R"("value":0,"hex":"0x00000000","name":null,"failed":false)");
    return json.EndObject();
  }
  const SqlzZrcEntry* entry = codes.find(value);
  json.member("value", value);
  json.plainMember("hex", [&](Text& hex) {
    hex.put("0x");
    hex.hex(static_cast<std::uint64_t>(value), value < -0x80000000LL || value > 0xFFFFFFFFLL ? 16 : 8);
  });
  json.member("name", entry == nullptr ? nullptr : entry->name);
  json.member("failed", codes.isFailure(value));
  json.EndObject();
}

namespace {

void putGapMembers(JsonLine& json, const SqltTraceRecord& gap) {
  json.member("reason", gapName(gap.gapReason));
  json.member("missing_records", gap.gapRecords);
  json.member("bytes", gap.gapBytes);
  json.member("segment", gap.segment);
  json.member("offset", gap.offset);
}

void putValueMembers(JsonLine& json, TracePass& pass, const SqltTraceRecord& record) {
  const auto plain = static_cast<std::uint64_t>(record.value);
  if (record.kind != SqltRecordKind::kEntry && record.kind != SqltRecordKind::kExit) json.member("probe", record.probe);
  switch (record.kind) {
    case SqltRecordKind::kEntry:
      if (plain != SQLT_NO_ENGINE_UNIT) json.member("unit", plain);
      return;
    case SqltRecordKind::kExit:
      return putCodeMembers(json, pass.codes(), "rc", record.value);
    case SqltRecordKind::kError:
      if (record.value != 0) putCodeMembers(json, pass.codes(), "rc", record.value);
      return;
    case SqltRecordKind::kTranslation:
      putCodeMembers(json, pass.codes(), "rc", record.value);
      return putCodeMembers(json, pass.codes(), "became", translatedTo(record).value_or(0));
    case SqltRecordKind::kEvent:
      return json.member("event", plain);
    case SqltRecordKind::kCorrelator:
      return json.member("correlator", plain);
    default:
      return;
  }
}

}  // namespace

void putRecordMembers(JsonLine& json, TracePass& pass, const TraceSight& sight) {
  const SqltTraceRecord& record = sight.record;
  putMomentMembers(json, record.realtimeNs);
  json.member("kind", kindName(record.kind));
  json.fragment(sight.thread.members);
  if (record.kind == SqltRecordKind::kGap) return putGapMembers(json, record);
  json.fragment(sight.function.members);
  putDetailMembers(json, pass, record);
}

void putDetailMembers(JsonLine& json, TracePass& pass, const SqltTraceRecord& record) {
  putValueMembers(json, pass, record);
  putItems(json, pass.reader(), record);
}

}  // namespace veksys
