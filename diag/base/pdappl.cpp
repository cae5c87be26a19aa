// The optional fields of record headers: who is asked for them, and which are wanted.
#include <atomic>

#include "diag/base/pdlog.h"
#include "platform/host.h"

namespace vek {
namespace {

constinit std::atomic<std::uint32_t> g_headerMask = PD_HEADER_ALL;

// The call-backs that the process registered. Each is taken on its own: a thread that logs while they are changed may
// ask some of the old and some of the new ones, never a mixture of one.
struct Registered {
  std::atomic<decltype(PdApplInfoFunctions::handle)> handle = nullptr;
  std::atomic<decltype(PdApplInfoFunctions::work)> work = nullptr;
  std::atomic<decltype(PdApplInfoFunctions::authorization)> authorization = nullptr;
  std::atomic<decltype(PdApplInfoFunctions::hostName)> hostName = nullptr;
  std::atomic<decltype(PdApplInfoFunctions::databaseName)> databaseName = nullptr;
  std::atomic<bool (*)(char* id, std::size_t bytes)> applicationId = nullptr;
};
constinit Registered g_registered;

bool isWanted(std::uint32_t bit) noexcept { return (g_headerMask.load(std::memory_order_relaxed) & bit) != 0; }

// Asks for a text; what the call-back does not know, or does not terminate, ends here.
void askText(bool (*ask)(char* text, std::size_t bytes), char* field, std::size_t bytes) noexcept {
  if (ask == nullptr) return;
  field[0] = '\0';
  if (!ask(field, bytes)) field[0] = '\0';
  field[bytes - 1] = '\0';
}

void askApplication(VekApplication* out) noexcept {
  if (const auto handle = g_registered.handle.load(); handle != nullptr)
    out->hasHandle = handle(&out->handlePartition, &out->handleIndex);
  askText(g_registered.applicationId.load(), out->applicationId, sizeof out->applicationId);
}

void askWork(VekApplication* out) noexcept {
  const auto work = g_registered.work.load();
  if (work == nullptr) return;
  out->unitOfWorkId = out->activityId = out->tenantId = 0;
  if (!work(&out->unitOfWorkId, &out->activityId, &out->tenantId))
    out->unitOfWorkId = out->activityId = out->tenantId = 0;
}

void askUser(VekApplication* out) noexcept {
  askText(g_registered.authorization.load(), out->authorizationId, sizeof out->authorizationId);
  askText(g_registered.hostName.load(), out->hostName, sizeof out->hostName);
}

void dropUnwanted(VekApplication* out) noexcept {
  if (!isWanted(PD_HEADER_DATABASE)) out->databaseName[0] = '\0';
  if (!isWanted(PD_HEADER_WORK)) out->unitOfWorkId = out->activityId = 0;
  if (!isWanted(PD_HEADER_TENANT)) out->tenantId = 0;
  if (!isWanted(PD_HEADER_APPLICATION)) {
    out->hasHandle = false;
    out->applicationId[0] = '\0';
  }
  if (!isWanted(PD_HEADER_USER)) out->authorizationId[0] = out->hostName[0] = '\0';
}

bool isAnyRegistered() noexcept {
  const Registered& all = g_registered;
  return all.handle.load() != nullptr || all.work.load() != nullptr || all.authorization.load() != nullptr ||
         all.hostName.load() != nullptr || all.databaseName.load() != nullptr || all.applicationId.load() != nullptr;
}

bool isAnyKnown(const VekApplication& fields) noexcept {
  return fields.hasHandle || fields.applicationId[0] != '\0' || fields.authorizationId[0] != '\0' ||
         fields.hostName[0] != '\0' || fields.databaseName[0] != '\0' || fields.unitOfWorkId != 0 ||
         fields.activityId != 0 || fields.tenantId != 0;
}

}  // namespace

bool pdi_applicationFields(VekApplication* out) noexcept {
  if (!isWanted(PD_HEADER_ALL & ~PD_HEADER_ENGINE_UNIT)) return false;
  if (!hostApplication(out)) {
    if (!isAnyRegistered()) return false;
    *out = {};
  }
  if (isWanted(PD_HEADER_APPLICATION)) askApplication(out);
  if (isWanted(PD_HEADER_WORK | PD_HEADER_TENANT)) askWork(out);
  if (isWanted(PD_HEADER_USER)) askUser(out);
  if (isWanted(PD_HEADER_DATABASE))
    askText(g_registered.databaseName.load(), out->databaseName, sizeof out->databaseName);
  dropUnwanted(out);
  return isAnyKnown(*out);
}

bool pdi_asksCallBacks() noexcept { return hostHasFields() || isAnyRegistered(); }

bool pdi_engineUnit(VekEngineUnit* out) noexcept { return isWanted(PD_HEADER_ENGINE_UNIT) && hostEngineUnit(out); }

}  // namespace vek

using vek::g_registered;

void pdLogSetExtraHeaderMask(std::uint32_t mask) noexcept { vek::g_headerMask.store(mask, std::memory_order_relaxed); }

void pdSetGetApplInfoFunctions(const PdApplInfoFunctions* functions) noexcept {
  const PdApplInfoFunctions all = functions == nullptr ? PdApplInfoFunctions{} : *functions;
  g_registered.handle.store(all.handle);
  g_registered.work.store(all.work);
  g_registered.authorization.store(all.authorization);
  g_registered.hostName.store(all.hostName);
  g_registered.databaseName.store(all.databaseName);
}

void sqltSetGetApplIdFunction(bool (*applicationId)(char* id, std::size_t bytes)) noexcept {
  g_registered.applicationId.store(applicationId);
}
