// Messages of the OS-services layer as records of the log.
#include "diag/base/pdlog.h"
#include "diag/base/traced.h"
#include "platform/osse.h"
#include "veksys/codes.h"

void pdOSSeLoggingCallback(const PdOSSeMessage* message) noexcept {
  if (message == nullptr) return;
  PdLogCall call = {};
  call.size = sizeof call;
  call.flags = message->ecfCode != 0 ? PD_LOG_RC_ECF : PD_LOG_RC_NONE;
  call.functionId = message->functionId;
  call.probe = message->probe;
  call.returnCode = message->ecfCode;
  call.level = message->level;
  call.message = message->text;
  call.hasOsError = message->osError != 0;
  call.osError = message->osError;
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
