// Records as JSON.
#include "trace_items.h"
#include "trace_views.h"

namespace veksys {

void putMomentMembers(JsonLine& json, std::int64_t moment) {
  Text text;
  ClockText::iso(text, moment);
  json.member("time", text.view());
  json.member("time_ns", moment);
}

void putThreadMembers(JsonLine& json, const SqltTraceThread& who) {
  Text name;
  json.member("process", who.processId);
  putSafe(name, who.processName);
  json.member("process_name", name.view());
  name.clear();
  putSafe(name, who.threadName);
  json.member("thread", who.threadId);
  json.member("thread_name", name.view());
  json.member("partition", who.partition);
}

void putFunctionMembers(JsonLine& json, const TraceFunction& function) {
  Text id;
  id.hexCode(function.id);
  json.member("function", function.name);
  json.member("function_id", id.view());
  json.member("component", function.component);
}

void putCodeMembers(JsonLine& json, CodeNames& codes, std::string_view name, std::int64_t value) {
  const SqlzZrcEntry* entry = codes.find(value);
  Text hex;
  hex.put("0x");
  hex.hex(static_cast<std::uint64_t>(value), value < -0x80000000LL || value > 0xFFFFFFFFLL ? 16 : 8);
  json.object(name);
  json.member("value", value);
  json.member("hex", hex.view());
  json.member("name", entry == nullptr || value == 0 ? nullptr : entry->name);
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
  putThreadMembers(json, sight.thread.who);
  if (record.kind == SqltRecordKind::kGap) return putGapMembers(json, record);
  putFunctionMembers(json, sight.function);
  putDetailMembers(json, pass, record);
}

void putDetailMembers(JsonLine& json, TracePass& pass, const SqltTraceRecord& record) {
  putValueMembers(json, pass, record);
  putItems(json, pass.reader(), record);
}

}  // namespace veksys
