// The composition: which floor answers which port. The only file that may see every floor.
#include <cstring>

#include "diag/base/pdlog.h"
#include "diag/base/sqltfast.h"
#include "memory/sqlo_mem_pool_fast.h"
#include "memory/sqlo_mem_rows.h"
#include "platform/osse.h"
#include "platform/ports.h"
#include "sync/sqloLatchTable.h"
#include "veksys/host.h"

namespace vek {
namespace {

bool readEnvironment(const char* name, char* value, std::size_t bytes) {
  const char* found = ossEnvironment(name);
  if (found == nullptr || std::strlen(found) >= bytes) return false;
  ossCopyText(value, bytes, found);
  return true;
}

void noRecorder(const PortRecorderEvent&) {}
std::size_t noFormatter(std::uint32_t, const void*, std::uint32_t, char*, std::size_t) { return 0; }

// An instance without a node configuration has one member: this process's own, on this machine.
MemberAnswer ownMember(std::int16_t partition, const char* host, PortMember* out) {
  PortMember own = {vekInstanceControl()->partition, {}};
  ossHostName(own.host, sizeof own.host);
  if (partition != ANY_PARTITION && partition != own.partition) return MemberAnswer::kUnknown;
  if (host != nullptr && std::strcmp(host, own.host) != 0) return MemberAnswer::kUnknown;
  *out = own;
  return MemberAnswer::kFound;
}

}  // namespace

constinit Ports g_ports = {
    .readSetting = readEnvironment,
    .reportEvent = pdi_reportEvent,
    .recordEvent = noRecorder,
    .formatItem = noFormatter,
    .member = ownMember,
    .attachTrace = sqlti_attachAtPoint,
    .flushMemoryCaches = sqloi_fastThreadEnds,
    .checkLatches = sqloi_latchThreadEnds,
    .freeMemoryRows = sqloi_rowsProcessEnds,
};

}  // namespace vek
