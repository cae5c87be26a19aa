// What tests of the trace share: records as values that can be compared.
#pragma once

#include <utility>

#include "platform/support.h"
#include "veksys/diag/trace.h"
#include "veksys/diag/trace_control.h"
#include "veksys/diag/trace_reader.h"

namespace vektest {

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
inline constexpr bool kSanitized = true;
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer) || __has_feature(address_sanitizer)
inline constexpr bool kSanitized = true;
#else
inline constexpr bool kSanitized = false;
#endif
#else
inline constexpr bool kSanitized = false;
#endif

// A function identifier of a component without special rules.
inline constexpr EcfFunctionId kFunction = ecfFunctionId(9, 17);

using namespace vek::platformtest;

struct ReadItem {
  std::uint32_t type;
  std::uint32_t size;
  bool isNull;
  std::string bytes;
  bool operator==(const ReadItem&) const = default;
};

struct ReadRecord {
  SqltRecordKind kind;
  EcfFunctionId function;
  std::uint32_t probe;
  std::int64_t value;
  std::uint64_t thread;
  std::uint64_t number;
  std::uint64_t ticks;
  SqltGapReason gapReason;
  std::uint64_t gapRecords;
  std::uint32_t segment;
  std::uint32_t offset;
  std::vector<ReadItem> items;
  bool operator==(const ReadRecord&) const = default;
  bool isGap() const { return kind == SqltRecordKind::kGap; }
};

inline ReadRecord toValue(const SqltTraceRecord& from) {
  ReadRecord record = {};
  record.kind = from.kind;
  record.function = from.functionId;
  record.probe = from.probe;
  record.value = from.value;
  record.thread = from.thread.serial;
  record.number = from.number;
  record.ticks = from.ticks;
  record.segment = from.segment;
  record.offset = from.offset;
  if (record.isGap()) {
    record.gapReason = from.gapReason;
    record.gapRecords = from.gapRecords;
    return record;
  }
  for (std::uint32_t i = 0; i < from.itemCount; ++i) {
    const SqltTraceItem& item = from.items[i];
    record.items.push_back(
        {item.type, item.size, item.isNull, std::string(static_cast<const char*>(item.data), item.stored)});
  }
  return record;
}

inline std::vector<ReadRecord> readAll(SqltTraceReader& reader) {
  std::vector<ReadRecord> records;
  SqltTraceRecord record = {};
  while (reader.next(&record)) records.push_back(toValue(record));
  return records;
}

inline std::vector<ReadRecord> withoutGaps(const std::vector<ReadRecord>& all) {
  std::vector<ReadRecord> records;
  for (const ReadRecord& record : all)
    if (!record.isGap()) records.push_back(record);
  return records;
}

inline std::vector<ReadRecord> readInstance() {
  SqltTraceReader reader;
  EXPECT_EQ(reader.openInstance(), 0);
  return readAll(reader);
}

inline std::vector<ReadRecord> readFile(const std::string& path) {
  SqltTraceReader reader;
  EXPECT_EQ(reader.openFile(path.c_str()), 0);
  return readAll(reader);
}

inline std::uint64_t mix(std::uint64_t value) {
  value = (value ^ (value >> 30)) * 0xBF58476D1CE4E5B9U;
  value = (value ^ (value >> 27)) * 0x94D049BB133111EBU;
  return value ^ (value >> 31);
}

}  // namespace vektest
