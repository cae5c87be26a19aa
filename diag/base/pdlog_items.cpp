// The calls of the log with items. No argument of theirs is a floating-point number, and this file is compiled so that
// they do not look for any: a variadic function begins by storing the registers that such arguments come in, before it
// can find that its level is filtered.
#include "diag/base/pdlog.h"

namespace {

using vek::pdi_isOver;
using vek::pdi_writeRecord;

SqlzZrc writeItems(PdLogCall& call, std::uint64_t itemCount, std::va_list* arguments) noexcept {
  call.itemsAnnounced = true;
  call.itemCount = itemCount;
  call.arguments = arguments;
  return pdi_writeRecord(call);
}

// What pdLog does once it is past the filter: apart, so that a filtered call keeps its arguments where they are.
[[gnu::noinline]] SqlzZrc writePlain(std::uint64_t flags, EcfFunctionId functionId, std::int64_t returnCode,
                                     std::uint32_t probe, std::uint32_t level, std::uint64_t itemCount,
                                     std::va_list* arguments) noexcept {
  PdLogCall call = pdLogDescribe(flags, functionId, returnCode, probe, level);
  return writeItems(call, itemCount, arguments);
}

}  // namespace

SqlzZrc pdLog(std::uint64_t flags, EcfFunctionId functionId, std::int64_t returnCode, std::uint32_t probe,
              std::uint32_t level, std::uint64_t itemCount, ...) noexcept {
  if (pdi_isOver(flags, level)) return SQLT_NOLOG;
  std::va_list arguments;
  va_start(arguments, itemCount);
  const SqlzZrc result = writePlain(flags, functionId, returnCode, probe, level, itemCount, &arguments);
  va_end(arguments);
  return result;
}

SqlzZrc pdLogRC(std::uint64_t flags, EcfFunctionId functionId, std::int64_t returnCode, std::uint32_t probe,
                std::uint32_t level, EcfFunctionId calledFunctionId, std::uint64_t itemCount, ...) noexcept {
  if (pdi_isOver(flags, level)) return SQLT_NOLOG;
  std::va_list arguments;
  va_start(arguments, itemCount);
  PdLogCall call = pdLogDescribe(flags, functionId, returnCode, probe, level);
  call.calledFunctionId = calledFunctionId;
  const SqlzZrc result = writeItems(call, itemCount, &arguments);
  va_end(arguments);
  return result;
}

SqlzZrc pdLogSysRC(std::uint64_t flags, EcfFunctionId functionId, std::int64_t returnCode, std::uint32_t probe,
                   std::uint32_t level, const char* calledSystemFunction, std::int32_t osError, std::uint64_t itemCount,
                   ...) noexcept {
  if (pdi_isOver(flags, level)) return SQLT_NOLOG;
  std::va_list arguments;
  va_start(arguments, itemCount);
  PdLogCall call = pdLogDescribe(flags, functionId, returnCode, probe, level);
  call.calledSystemFunction = calledSystemFunction;
  call.hasOsError = true;
  call.osError = osError;
  const SqlzZrc result = writeItems(call, itemCount, &arguments);
  va_end(arguments);
  return result;
}

SqlzZrc pdLogEvent(std::uint64_t flags, EcfFunctionId functionId, std::int64_t returnCode, std::uint32_t probe,
                   std::uint32_t level, const PdLogEvent* event, std::uint64_t itemCount, ...) noexcept {
  if (pdi_isOver(flags, level)) return SQLT_NOLOG;
  if (event == nullptr) return SQLO_INV_PARM;
  std::va_list arguments;
  va_start(arguments, itemCount);
  PdLogCall call = pdLogDescribe(flags, functionId, returnCode, probe, level);
  call.event = event;
  const SqlzZrc result = writeItems(call, itemCount, &arguments);
  va_end(arguments);
  return result;
}

SqlzZrc pdLogEventString(std::uint64_t flags, EcfFunctionId functionId, std::int64_t returnCode, std::uint32_t probe,
                         std::uint32_t level, const PdLogEvent* event, const char* text) noexcept {
  if (pdi_isOver(flags, level)) return SQLT_NOLOG;
  if (event == nullptr) return SQLO_INV_PARM;
  const PdtItem item = {PD_TYPE_STRING, vek::pdi_textBytes(text), text};
  PdLogCall call = pdLogDescribe(flags, functionId, returnCode, probe, level);
  call.event = event;
  call.itemsAnnounced = true;
  call.itemCount = 1;
  call.items = &item;
  return pdi_writeRecord(call);
}

SqlzZrc pdLogEventWithMessage(std::uint64_t flags, EcfFunctionId functionId, std::int64_t returnCode,
                              std::uint32_t probe, std::uint32_t level, const PdLogEvent* event,
                              std::uint64_t messageNumber, std::uint64_t itemCount, ...) noexcept {
  if (pdi_isOver(flags, level)) return SQLT_NOLOG;
  if (event == nullptr) return SQLO_INV_PARM;
  std::va_list arguments;
  va_start(arguments, itemCount);
  PdLogCall call = pdLogDescribe(flags, functionId, returnCode, probe, level);
  call.event = event;
  call.messageNumber = messageNumber;
  const SqlzZrc result = writeItems(call, itemCount, &arguments);
  va_end(arguments);
  return result;
}

SqlzZrc pdLogEvRecEx(std::uint64_t flags, EcfFunctionId functionId, std::int64_t returnCode, std::uint32_t probe,
                     std::uint32_t level, const PdRecorderEvent* event, std::uint64_t itemCount, ...) noexcept {
  if (event == nullptr) return SQLO_INV_PARM;
  std::va_list arguments;
  va_start(arguments, itemCount);
  PdLogCall call = pdLogDescribe(flags, functionId, returnCode, probe, level);
  call.recorderEvent = event;
  const SqlzZrc result = writeItems(call, itemCount, &arguments);
  va_end(arguments);
  return result;
}

SqlzZrc pdLogRCEvRecEx(std::uint64_t flags, EcfFunctionId functionId, std::int64_t returnCode, std::uint32_t probe,
                       std::uint32_t level, const PdRecorderEvent* event, EcfFunctionId calledFunctionId,
                       std::uint64_t itemCount, ...) noexcept {
  if (event == nullptr) return SQLO_INV_PARM;
  std::va_list arguments;
  va_start(arguments, itemCount);
  PdLogCall call = pdLogDescribe(flags, functionId, returnCode, probe, level);
  call.recorderEvent = event;
  call.calledFunctionId = calledFunctionId;
  const SqlzZrc result = writeItems(call, itemCount, &arguments);
  va_end(arguments);
  return result;
}

SqlzZrc pdLogSysRCEvRecEx(std::uint64_t flags, EcfFunctionId functionId, std::int64_t returnCode, std::uint32_t probe,
                          std::uint32_t level, const PdRecorderEvent* event, const char* calledSystemFunction,
                          std::int32_t osError, std::uint64_t itemCount, ...) noexcept {
  if (event == nullptr) return SQLO_INV_PARM;
  std::va_list arguments;
  va_start(arguments, itemCount);
  PdLogCall call = pdLogDescribe(flags, functionId, returnCode, probe, level);
  call.recorderEvent = event;
  call.calledSystemFunction = calledSystemFunction;
  call.hasOsError = true;
  call.osError = osError;
  const SqlzZrc result = writeItems(call, itemCount, &arguments);
  va_end(arguments);
  return result;
}
