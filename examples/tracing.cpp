#include "tracing.h"

#include <veksys/codes.h>
#include <veksys/diag/trace.h>
#include <veksys/diag/trace_control.h>
#include <veksys/host.h>

#include <algorithm>
#include <iterator>

#include "functions.h"

namespace demo {
namespace {

constexpr std::uint32_t kWanted = SQLT_TRACE_ENTRY | SQLT_TRACE_EXIT | SQLT_TRACE_DATA | SQLT_TRACE_ERROR;
constexpr std::uint8_t kWantedMask = SQLT_MASK_ENTRY | SQLT_MASK_EXIT | SQLT_MASK_DATA | SQLT_MASK_ERROR;

bool isOurs(std::uint32_t component) noexcept {
  return std::find(std::begin(kComponents), std::end(kComponents), component) != std::end(kComponents);
}

bool oursAreOn() noexcept {
  return sqltTraceActive() && std::all_of(std::begin(kComponents), std::end(kComponents), [](Component component) {
           return (sqltTraceWord(component) & kWanted) == kWanted;
         });
}

bool othersAreOn() noexcept {
  for (std::uint32_t component = 0; component < SQLT_TRACE_COMPONENTS; ++component)
    if (!isOurs(component) && (sqltTraceWord(component) & ~SQLT_TRACE_WORKLOAD_DISPLAY) != 0) return true;
  return false;
}

// A settings record speaks for all components at once: those outside its bitmap are switched off.
SqlzZrc switchOurs() noexcept {
  SqltTraceSettings settings = {};
  settings.options = SQLT_OPTION_COMPONENTS;
  settings.selection = SQLT_SELECT_MASK_BYTES;
  settings.mask[0] = kWantedMask;
  for (const std::uint32_t component : kComponents)
    settings.components[component / 8] |= static_cast<std::uint8_t>(1U << (component % 8));
  return sqltSetTraceFlags(&settings);
}

TracePoints switchPoints(SqlzZrc* code) noexcept {
  if (oursAreOn()) return TracePoints::kWereOn;
  if (othersAreOn()) return TracePoints::kOthersOn;
  *code = switchOurs();
  return TracePoints::kSwitchedOn;
}

}  // namespace

TraceSetup prepareTrace(bool keepSettings) noexcept {
  TraceSetup setup;
  setup.code = vekInstanceStatus();
  if (setup.code != 0) return setup;
  if (!keepSettings) {
    setup.code = sqltTraceFacilityCreate(0);  // of the default size
    setup.created = setup.code == 0;
    if (setup.code == SQLT_TRACE_ALREADY_CREATED) setup.code = 0;
    if (setup.code == 0) setup.points = switchPoints(&setup.code);
  }
  setup.bytes = sqltInquireTraceBufferSize();
  // There is one, and yet it has no size: it was made by another version of the library.
  if (setup.code == 0 && setup.bytes == 0 && !keepSettings) setup.code = SQLT_TRACE_NOT_A_TRACE;
  return setup;
}

}  // namespace demo
