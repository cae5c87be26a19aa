// Control of the trace facility.
#include <bit>
#include <cstring>

#include "diag/base/sqltfast.h"
#include "diag/base/traced.h"
#include "platform/osse.h"
#include "platform/ports.h"
#include "platform/region.h"
#include "platform/trcapi.h"
#include "veksys/codes.h"
#include "veksys/diag/trace_control.h"

namespace vek {
namespace {

// Bits that the all-ones default leaves out: the options of the settings record and the workload display.
constexpr std::uint32_t kNeverByDefault = 0x2000000 | 0x800000 | 0x400000 | 0x100000 | 0x80000 | 0x40000;

constexpr std::uint32_t kByDefault = ~kNeverByDefault;
static_assert(kByDefault == 0xFD23FFFFU);

constexpr std::uint32_t kError = 2;  // level of an event

struct MaskBit {
  std::uint8_t byte;
  std::uint8_t bit;
  std::uint32_t word;
};

// KEEP: byte 1 crosses 0x08 to 0x800 and 0x10 to 0x400, as the trace tool's settings records have always had it.
constexpr MaskBit kMaskBits[] = {
    {0, 0x02, 0x1},    {0, 0x04, 0x2},    {0, 0x08, 0x4},    {0, 0x10, 0x8},      {0, 0x20, 0x10},    {0, 0x40, 0x20},
    {0, 0x80, 0x40},   {1, 0x01, 0x80},   {1, 0x02, 0x100},  {1, 0x04, 0x200},    {1, 0x08, 0x800},   {1, 0x10, 0x400},
    {1, 0x20, 0x1000}, {1, 0x40, 0x2000}, {1, 0x80, 0x4000}, {2, 0x01, 0x220000}, {2, 0x04, 0x10000}, {2, 0x08, 0x8000},
};

std::uint32_t wordOfMask(const std::uint8_t (&mask)[3]) noexcept {
  std::uint32_t word = 0;
  for (const MaskBit& row : kMaskBits)
    if ((mask[row.byte] & row.bit) != 0) word |= row.word;
  return word;
}

bool settingIsTrue(const char* name) noexcept {
  char value[8];
  return g_ports.readSetting(name, value, sizeof value) && std::strcmp(value, "TRUE") == 0;
}

// What the client interface gets on top of a word that the record chose for it.
std::uint32_t clientInterfaceWord(std::uint32_t word, std::uint32_t options, bool disabled) noexcept {
  if ((options & SQLT_OPTION_CLI_DETAIL) != 0) word |= 0x80000;
  if (disabled) return word;
  if ((options & SQLT_OPTION_CLI_SELECT) != 0) {
    word = (word | 0x1000000) & ~0xC00000U;
    if ((options & SQLT_OPTION_CLI_FIRST) != 0) word |= 0x400000;
    if ((options & SQLT_OPTION_CLI_SECOND) != 0) word |= 0x800000;
  } else if ((options & SQLT_OPTION_CLI_OTHER) != 0) {
    word |= 0x2000000;
  }
  return word;
}

// The rules for one component, as functions of the record.
class FlagRules {
 public:
  FlagRules(const SqltTraceSettings& settings, std::uint32_t kept) noexcept
      : settings_(settings),
        kept_(kept),
        useBitmap_((settings.options & (SQLT_OPTION_COMPONENTS | SQLT_OPTION_COMPONENTS_TOO)) != 0),
        useMask_((settings.selection & SQLT_SELECT_MASK_BYTES) != 0),
        clientDisabled_(settingIsTrue("VEK_CLITRC_DISABLE")) {}

  std::uint32_t word(std::uint32_t component) const noexcept {
    const bool chosen = !useBitmap_ || (inBitmap(component) && useMask_);
    std::uint32_t word = kept_;
    if (chosen) word = useBitmap_ ? wordOfMask(settings_.mask) : (kByDefault | kept_);
    if (chosen && component == SQLT_CLIENT_INTERFACE)
      word = clientInterfaceWord(word, settings_.options, clientDisabled_);
    if ((settings_.options & SQLT_OPTION_ALL) != 0) word |= 0x100000;
    return word;
  }

 private:
  bool inBitmap(std::uint32_t component) const noexcept {
    return (settings_.components[component / 8] & (1U << (component % 8))) != 0;
  }

  const SqltTraceSettings& settings_;
  std::uint32_t kept_;
  bool useBitmap_;
  bool useMask_;
  bool clientDisabled_;
};

// Attaches for an operation that a person or the host asked for; these may report.
SqlzZrc attachForControl() noexcept {
  if (sqlti_traceIsSkipped()) return SQLT_TRACE_SKIPPED;
  const bool attached = sqlti_attachStep();
  regionReportOnce();
  if (attached) return 0;
  return regionHeader() == nullptr ? SQLO_REGION_NO_MEMORY : SQLT_TRACE_CREATE_FAILED;
}

std::uint64_t ringSizeFor(std::uint64_t asked) noexcept {
  if (asked < SQLT_TRACE_SIZE_MINIMUM || asked >= SQLT_TRACE_SIZE_BEYOND) return sqltGetDefTrcBuffSize();
  return std::bit_floor(asked);
}

// Creates the ring; that there is no room for it, or that the system refuses it, is reported here.
SqlzZrc createRing(EcfFunctionId caller, std::uint64_t bytes, bool byClientInterface) noexcept {
  const SqlzZrc result = trcCreateShared(ringSizeFor(bytes), byClientInterface);
  if (result == SQLT_TRACE_NO_SPACE || result == SQLT_TRACE_CREATE_FAILED) {
    char text[128];
    ossSnprintf(text, sizeof text, "A trace ring of %llu bytes cannot be created",
                static_cast<unsigned long long>(ringSizeFor(bytes)));
    g_ports.reportEvent({caller, 10, kError, result, text});
  }
  return result;
}

}  // namespace
}  // namespace vek

using namespace vek;

SqlzZrc sqltTraceFacilityCreate(std::uint64_t bytes) noexcept {
  VekTrace<FID_sqltTraceFacilityCreate> trace;
  const SqlzZrc attached = attachForControl();
  return trace.exit(attached != 0 ? attached : createRing(FID_sqltTraceFacilityCreate, bytes, false));
}

SqlzZrc sqltTraceFacilityDelete() noexcept {
  VekTrace<FID_sqltTraceFacilityDelete> trace;
  const SqlzZrc attached = attachForControl();
  if (attached != 0) return trace.exit(attached);
  const SqlzZrc result = trcDeleteShared(false);
  if (result == 0) sqltClearTraceFlags();
  return trace.exit(result);
}

SqlzZrc sqltTraceFacilityCLICreate(std::uint64_t bytes) noexcept {
  VekTrace<FID_sqltTraceFacilityCLICreate> trace;
  const SqlzZrc attached = attachForControl();
  if (attached != 0) return trace.exit(attached);
  const SqlzZrc result = createRing(FID_sqltTraceFacilityCLICreate, bytes, true);
  return trace.exit(result == SQLT_TRACE_ALREADY_CREATED ? 0 : result);
}

SqlzZrc sqltTraceFacilityCLIDelete() noexcept {
  VekTrace<FID_sqltTraceFacilityCLIDelete> trace;
  const SqlzZrc attached = attachForControl();
  if (attached != 0) return trace.exit(attached);
  const SqlzZrc result = trcDeleteShared(true);
  if (result == 0) sqltClearTraceFlags();
  return trace.exit(result == SQLT_TRACE_NOT_CREATED ? 0 : result);
}

std::uint64_t sqltinit() noexcept {
  VekTrace<FID_sqltinit> trace;
  const bool attached = attachForControl() == 0;
  return trace.exit((1ULL << 32) | (attached ? 1U : 0U));
}

std::uint64_t sqltGetDefTrcBuffSize() noexcept {
  char value[64];
  std::uint64_t bytes = 0;
  if (g_ports.readSetting("VEKTRC_DEF_BUFFSIZE", value, sizeof value) && trcGetBuffSizeFromStr(value, &bytes) &&
      bytes >= SQLT_TRACE_SIZE_MINIMUM && bytes < SQLT_TRACE_SIZE_BEYOND)
    return bytes;
  return SQLT_TRACE_SIZE_DEFAULT;
}

std::uint64_t sqltInquireTraceBufferSize() noexcept {
  return attachForControl() == 0 ? trcInquireTraceBufferSize() : 0;
}

SqlzZrc sqltTrcAuxBufferSize(std::uint64_t* bytesOut) noexcept {
  if (bytesOut == nullptr) return SQLO_INV_PARM;
  *bytesOut = 0;
  return 0;
}

SqlzZrc sqltTrcSharedIPCInfo(SqltSharedIPCInfo* out) noexcept {
  VekTrace<FID_sqltTrcSharedIPCInfo> trace;
  if (out == nullptr) return trace.exit(SQLO_INV_PARM);
  const SqlzZrc attached = attachForControl();
  if (attached == 0) trcGetWindowsIPCInfo(out);
  return trace.exit(attached);
}

SqlzZrc sqlt_dump_trace(const char* target) noexcept {
  VekTrace<FID_sqlt_dump_trace> trace;
  if (target == nullptr || target[0] == '\0') return trace.exit(SQLO_INV_PARM);
  const SqlzZrc attached = attachForControl();
  if (attached != 0) return trace.exit(attached);
  int error = 0;
  const SqlzZrc result = trcInstantaneousDump(target, &error);
  if (error != 0) {
    trace.error(10, result, error, target);
    char text[1024];
    ossSnprintf(text, sizeof text, "The trace cannot be dumped to %s: %s", target, ::strerrordesc_np(error));
    g_ports.reportEvent({FID_sqlt_dump_trace, 10, kError, result, text});
  }
  return trace.exit(result);
}

SqlzZrc sqltSetTraceFlags(const SqltTraceSettings* settings) noexcept {
  VekTrace<FID_sqltSetTraceFlags> trace;
  if (settings == nullptr) return trace.exit(SQLO_INV_PARM);
  const SqlzZrc attached = attachForControl();
  if (attached != 0) return trace.exit(attached);
  std::uint32_t events = wintEvents() & SQLT_TRACE_WORKLOAD_DISPLAY;
  const FlagRules rules(*settings, events);
  wintStore(WINT_EVENT_WORD, events);
  for (std::uint32_t component = 0; component < SQLT_TRACE_COMPONENTS; ++component) {
    const std::uint32_t word = rules.word(component);
    wintStore(component, word);
    events |= word;
    wintStore(WINT_EVENT_WORD, events);
  }
  trcSwitch(true);
  return trace.exit(0);
}

void sqltClearTraceFlags() noexcept {
  (void)sqlti_attachStep();  // unattached words must not be overwritten: they lead to attaching
  const std::uint32_t kept = wintEvents() & SQLT_TRACE_WORKLOAD_DISPLAY;
  wintStore(WINT_EVENT_WORD, kept);
  for (std::uint32_t component = 0; component < SQLT_TRACE_COMPONENTS; ++component) wintStore(component, kept);
}

void sqltSetWorkloadDisplay(bool on) noexcept {
  if (attachForControl() != 0) return;
  constexpr std::uint32_t kBit = SQLT_TRACE_WORKLOAD_DISPLAY;
  for (std::uint32_t component = 0; component < SQLT_TRACE_COMPONENTS; ++component) {
    const std::uint32_t word = wintTraceWord(component);
    wintStore(component, on ? word | kBit : word & ~kBit);
  }
  wintStore(WINT_EVENT_WORD, on ? wintEvents() | kBit : wintEvents() & ~kBit);
}

void sqltSetTrcDftNodeNum(std::int16_t partition) noexcept { trcSetGlobals(&partition, nullptr); }
void sqltspid(std::uint32_t processId) noexcept { trcSetGlobals(nullptr, &processId); }

void pdtClearBuffer() noexcept {
  VekTrace<FID_pdtClearBuffer> trace;
  if (attachForControl() == 0) trcClear();
}

void pdtDisable() noexcept {
  VekTrace<FID_pdtDisable> trace;
  if (attachForControl() == 0) trcSwitch(false);
}

const void* pdGetGTRecPtr() noexcept { return trcControlBlock(); }

bool sqltTraceActive() noexcept { return trcIsAttached() && trcIsOn(); }
