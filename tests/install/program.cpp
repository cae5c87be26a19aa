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

int expectSuccess(const char* what, SqlzZrc code) {
  if (code == 0) return 0;
  std::fprintf(stderr, "%s answered 0x%08X\n", what, static_cast<unsigned>(code));
  return 1;
}

int expectRecords(std::string_view function, int rounds, int points) {
  SqltTraceReader reader;
  SqltTraceRecord record;
  int entries = 0;
  int exits = 0;
  int data = 0;
  int faults = expectSuccess("openInstance", reader.openInstance());
  while (faults == 0 && reader.next(&record)) {
    const char* name = reader.functionName(record.functionId);
    if (name == nullptr || name != function) continue;
    entries += record.kind == SqltRecordKind::kEntry;
    exits += record.kind == SqltRecordKind::kExit;
    data += record.kind == SqltRecordKind::kData;
  }
  if (entries == rounds && exits == rounds && data == points) return faults;
  std::fprintf(stderr, "%s: %d entries, %d exits, %d data points recorded; expected %d, %d, %d\n", function.data(),
               entries, exits, data, rounds, rounds, points);
  return faults + 1;
}

int installHost() {
  static constexpr VekFunctionName kNames[] = {{FID_firstStep, "firstStep"}, {FID_secondStep, "secondStep"}};
  VekHost host = {};
  host.size = sizeof host;
  host.functionNames = kNames;
  host.functionNameCount = 2;
  return expectSuccess("vekHostInstall", vekHostInstall(&host));
}

}  // namespace

#if defined(VEKSYS_STATIC)
static int expectPerformanceRecord() { return 0; }
#else
// Counts the exits of firstStep that asked for a performance record.
static int g_performanceRecords = 0;

// Stands in the place of the library's own where that is the shared one.
extern "C" void sqltPerformanceRecordHook(const SqltPerformanceRecord* record) noexcept {
  g_performanceRecords += record->functionId == FID_firstStep && record->returnCode == 5 && record->reserved[0] == 0;
}

static int expectPerformanceRecord() {
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
}
#endif

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
