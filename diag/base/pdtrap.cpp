#include "diag/base/pdtrap.h"

#include <cstring>

#include "diag/base/pdpen.h"
#include "platform/append_file.h"
#include "platform/osse.h"
#include "veksys/diag/diagpath.h"

namespace vek {
namespace {

constexpr std::size_t kTextBytes = 16'384;
constinit char g_text[kTextBytes] = {};

PdRecordText formatTrapRecord(const PdRecordHeader& header, const Fault& fault) noexcept {
  char line[160];
  ossSnprintf(line, sizeof line, "%s (signal %d, code %d) at address 0x%016llX", ossSignalName(fault.signal),
              fault.signal, fault.code,
              static_cast<unsigned long long>(reinterpret_cast<std::uintptr_t>(fault.address)));
  PdRecordBody body;
  body.message = line;
  body.callStack = &fault.stack;
  return pdFormatRecord(header, body, g_text, sizeof g_text);
}

}  // namespace

int pdi_writeTrapFile(const char* directory, const PdRecordHeader& header, const Fault& fault) noexcept {
  char path[PD_DIAGPATH_BYTES + 64];
  ossSnprintf(path, sizeof path, "%s%u.%llu.%.3d.trap.txt", directory, header.processId,
              static_cast<unsigned long long>(header.threadId), header.partition);
  int fd = -1;
  std::uint64_t bytes = 0;
  if (const int refused = ossOpenToAppend(path, &fd, &bytes); refused != 0) return refused;
  const PdRecordText text = formatTrapRecord(header, fault);
  (void)pdStampIdentifier(g_text, bytes, text.length);
  const int error = ossWriteAll(fd, g_text, text.length);
  ossClose(fd);
  return error;
}

}  // namespace vek
