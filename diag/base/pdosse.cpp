// Messages of the OS-services layer as records of the log.
#include "diag/base/pdlog.h"
#include "diag/base/traced.h"
#include "platform/fault.h"
#include "platform/osse.h"
#include "veksys/codes.h"

namespace {

struct Reading {
  const PdOSSeMessage* from;
  PdOSSeMessage message;
};

// The message, or what is said in place of one that cannot be read.
PdOSSeMessage readMessage(const PdOSSeMessage* from) noexcept {
  Reading reading = {from, {}};
  const auto read = [](void* context) {
    auto& of = *static_cast<Reading*>(context);
    of.message = *of.from;
  };
  if (vek::faultGuard(read, &reading, nullptr)) return reading.message;
  return {.functionId = vek::FID_sqltSyncOSSeLogFacility,
          .probe = 20,
          .level = PD_LEVEL_WARNING,
          .ecfCode = 0,
          .osError = 0,
          .text = "A message of the OS-services layer could not be read"};
}

}  // namespace

void pdOSSeLoggingCallback(const PdOSSeMessage* message) noexcept {
  if (message == nullptr) return;
  const PdOSSeMessage told = readMessage(message);
  PdLogCall call = pdLogDescribe(told.ecfCode != 0 ? PD_LOG_RC_ECF : PD_LOG_RC_NONE, told.functionId, told.ecfCode,
                                 told.probe, told.level);
  call.message = told.text;
  call.hasOsError = told.osError != 0;
  call.osError = told.osError;
  (void)vek::pdi_writeRecord(call);  // the layer below has nobody to tell
}

SqlzZrc sqltSyncOSSeLogFacility() noexcept {
  vek::VekTrace<vek::FID_sqltSyncOSSeLogFacility> trace;
  return trace.exit(vek::ossSetLogHook(pdOSSeLoggingCallback) == 0 ? 0 : SQLT_OSSE_LOG_FACILITY_FAILED);
}

SqlzZrc sqltSetOSSeLogLevel(std::uint32_t level) noexcept {
  vek::VekTrace<vek::FID_sqltSetOSSeLogLevel> trace;
  return trace.exit(vek::ossSetLogLevel(level) == 0 ? 0 : SQLT_OSSE_LOG_SET_LEVEL_FAILED);
}
