// Traces its own functions, a second library's and the installed library's, and reads back what was recorded. The first
// round runs before tracing is switched on: words that the process bound or mapped wrongly stay silent afterwards.
#include "program.h"

#include <veksys/codes.h>
#include <veksys/diag/trace_control.h>
#include <veksys/diag/trace_reader.h>
#include <veksys/diag/trace_scope.h>
#include <veksys/host.h>

#include <cstdio>
#include <string_view>
#include <thread>

namespace {

SqlzZrc firstStep(int number) {
  SqltTraceScope<FID_firstStep> trace;
  trace.data(10, number);
  return trace.exit(number);
}

void round(int number) {
  firstStep(number);
  secondStep(number);
  SqltSharedIPCInfo info;
  (void)sqltTrcSharedIPCInfo(&info);  // a traced function of the library
}

struct Seen {
  int entries = 0;
  int exits = 0;
  int data = 0;
};

Seen recordsOf(std::string_view function) {
  Seen seen;
  SqltTraceReader reader;
  SqltTraceRecord record;
  if (reader.openInstance() != 0) return seen;
  while (reader.next(&record)) {
    const char* name = reader.functionName(record.functionId);
    if (name == nullptr || name != function) continue;
    seen.entries += record.kind == SqltRecordKind::kEntry;
    seen.exits += record.kind == SqltRecordKind::kExit;
    seen.data += record.kind == SqltRecordKind::kData;
  }
  return seen;
}

int expectRecords(const char* function, int rounds, int data) {
  const Seen seen = recordsOf(function);
  if (seen.entries == rounds && seen.exits == rounds && seen.data == data) return 0;
  std::fprintf(stderr, "%s: %d entries, %d exits, %d data points recorded; expected %d, %d, %d\n", function,
               seen.entries, seen.exits, seen.data, rounds, rounds, data);
  return 1;
}

int expectSuccess(const char* what, SqlzZrc code) {
  if (code == 0) return 0;
  std::fprintf(stderr, "%s answered 0x%08X\n", what, static_cast<unsigned>(code));
  return 1;
}

int installHost() {
  static constexpr VekFunctionName kNames[] = {{FID_firstStep, "firstStep"}, {FID_secondStep, "secondStep"}};
  VekHost host = {};
  host.size = sizeof host;
  host.functionNames = kNames;
  host.functionNameCount = 2;
  return expectSuccess("vekHostInstall", vekHostInstall(&host));
}

// Counts the exits of firstStep that asked for a performance record.
int g_performanceRecords = 0;

}  // namespace

// Stands in the place of the library's own where that is the shared one.
#if !defined(VEKSYS_STATIC)
extern "C" void sqltPerformanceRecordHook(const SqltPerformanceRecord* record) noexcept {
  g_performanceRecords += record->functionId == FID_firstStep && record->returnCode == 5 && record->reserved[0] == 0;
}
#endif

namespace {

int expectPerformanceRecord() {
#if !defined(VEKSYS_STATIC)
  SqltTraceSettings performance = {};
  performance.options = SQLT_OPTION_COMPONENTS;
  performance.selection = SQLT_SELECT_MASK_BYTES;
  performance.components[ecfComponent(FID_firstStep) / 8] = 1U << (ecfComponent(FID_firstStep) % 8);
  performance.mask[1] = 0x01;
  const int faults = expectSuccess("sqltSetTraceFlags", sqltSetTraceFlags(&performance));
  firstStep(5);
  if (g_performanceRecords == 1) return faults;
  std::fprintf(stderr, "%d performance records, expected 1\n", g_performanceRecords);
  return faults + 1;
#else
  return 0;
#endif
}

}  // namespace

int runProgram() {
  int faults = installHost();
  round(1);
  faults += expectSuccess("sqltTraceFacilityCreate", sqltTraceFacilityCreate(SQLT_TRACE_SIZE_DEFAULT));
  const SqltTraceSettings everything = {};
  faults += expectSuccess("sqltSetTraceFlags", sqltSetTraceFlags(&everything));
  round(2);
  std::thread([] { round(3); }).join();
  sqltClearTraceFlags();
  round(4);
  faults += expectRecords("firstStep", 2, 2);
  faults += expectRecords("secondStep", 2, 2);
  faults += expectRecords("sqltTrcSharedIPCInfo", 2, 0);
  faults += expectPerformanceRecord();
  return faults + expectSuccess("sqltTraceFacilityDelete", sqltTraceFacilityDelete());
}
