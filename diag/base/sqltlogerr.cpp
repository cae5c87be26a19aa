// The older interface to the diagnostic log: each call describes one record and hands it on.
#include "diag/base/pdlog.h"

namespace {

using vek::pdi_writeRecord;

PdLogCall call(EcfFunctionId functionId, std::uint32_t probe, std::uint32_t level) noexcept {
  return pdLogDescribe(PD_LOG_RC_NONE, functionId, 0, probe, level);
}

void setCode(SqlzZrc zrc, PdLogCall* out) noexcept {
  out->flags = PD_LOG_RC_ZRC;
  out->returnCode = zrc;
}

void setItem(const PdtItem& item, PdLogCall* out) noexcept {
  out->itemsAnnounced = true;
  out->itemCount = 1;
  out->items = &item;
}

const char* textOrNote(const char* text) noexcept { return text != nullptr ? text : "(no text)"; }

}  // namespace

SqlzZrc sqlt_logerr_zrc(EcfFunctionId functionId, std::uint32_t probe, std::uint32_t level, SqlzZrc zrc) noexcept {
  PdLogCall record = call(functionId, probe, level);
  setCode(zrc, &record);
  return pdi_writeRecord(record);
}

SqlzZrc sqlt_logerr_string(EcfFunctionId functionId, std::uint32_t probe, std::uint32_t level,
                           const char* text) noexcept {
  PdLogCall record = call(functionId, probe, level);
  record.message = textOrNote(text);
  return pdi_writeRecord(record);
}

SqlzZrc sqlt_logerr_data(EcfFunctionId functionId, std::uint32_t probe, std::uint32_t level, std::uint32_t size,
                         const void* data) noexcept {
  const PdtItem item = {PD_TYPE_HEXDUMP, size, data};
  PdLogCall record = call(functionId, probe, level);
  setItem(item, &record);
  return pdi_writeRecord(record);
}

SqlzZrc sqlt_logerr_dump(EcfFunctionId functionId, std::uint32_t probe, std::uint32_t level, const char* label,
                         std::uint32_t size, const void* data) noexcept {
  return pdLogDump(0, functionId, 0, probe, level, label, size, data);
}

SqlzZrc sqlt_logerr_snmp(EcfFunctionId functionId, std::uint32_t probe, std::uint32_t level, std::uint32_t alert,
                         const char* text) noexcept {
  const PdtItem item = {PD_TYPE_UINT, sizeof alert, &alert};
  const PdLogEvent event = {.action = "ALERT", .object = textOrNote(text), .impact = nullptr};
  PdLogCall record = call(functionId, probe, level);
  record.event = &event;
  setItem(item, &record);
  return pdi_writeRecord(record);
}

SqlzZrc sqlt_logerr(EcfFunctionId functionId, std::uint32_t probe, std::uint32_t level, SqlzZrc zrc, const char* text,
                    std::uint32_t size, const void* data) noexcept {
  const PdtItem item = {PD_TYPE_HEXDUMP, size, data};
  PdLogCall record = call(functionId, probe, level);
  setCode(zrc, &record);
  record.message = text;
  if (size != 0) setItem(item, &record);
  return pdi_writeRecord(record);
}
