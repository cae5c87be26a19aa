// The views of a trace and what they have in common.
#pragma once

#include <string>

#include "clock.h"
#include "command.h"
#include "failure.h"
#include "json.h"
#include "text.h"
#include "trace_calls.h"
#include "trace_pass.h"
#include "veksys/diag/trace.h"

namespace veksys {

// What a record carries besides its function: probe, code, event, items. Of one item at most `most` bytes are shown.
void putDetails(Text& text, TracePass& pass, const SqltTraceRecord& record, std::uint32_t most);
void putProbe(Text& text, std::uint32_t probe);

// A record as members of a JSON object.
void putRecordMembers(JsonLine& json, TracePass& pass, const TraceSight& sight);
void putDetailMembers(JsonLine& json, TracePass& pass, const SqltTraceRecord& record);  // probe, code, event, items
void putMomentMembers(JsonLine& json, std::int64_t moment);
void putCodeMembers(JsonLine& json, CodeNames& codes, std::string_view name, std::int64_t value);

int runFormat(TracePass& pass, Command& command);

struct FlowOptions {
  bool merged = false;
  bool full = false;
};
int runFlow(TracePass& pass, Command& command, const FlowOptions& options);

struct StatOptions {
  std::string sort = "total";
  std::uint64_t top = 0;  // 0: all
};
int runStat(TracePass& pass, Command& command, const StatOptions& options);

struct ExportOptions {
  std::string chrome;  // file
  std::string ctf;     // directory
};
int runExport(TracePass& pass, Command& command, const ExportOptions& options);

}  // namespace veksys
