#include "platform/host.h"

#include <dlfcn.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>

#include "platform/dirs.h"
#include "platform/osse.h"
#include "platform/region.h"
#include "veksys/codes.h"
#include "veksys/diag/trace.h"

namespace vek {
namespace {

// Sizes of the host record that callers may have been compiled with, one per layout this library ever had.
constexpr std::size_t kKnownSizes[] = {offsetof(VekHost, panic), sizeof(VekHost)};

constexpr VekInstanceControl kDefaultControl = {
    .instanceName = {},
    .partition = 0,
    .DIAGLEVEL = 6,
    .NOTIFYLEVEL = 3,
    .DIAGPATH = {},
    .ALT_DIAGPATH = {},
    .CF_DIAGPATH = {},
    .DIAGSIZE = 0,
    .MEMBERS_ON_HOST = 0,
};

constinit VekHost g_host = {};

// Of the instance that this process attached to; empty before.
constinit char g_instanceName[sizeof VekInstanceControl::instanceName] = {};
constinit std::atomic<bool> g_keepsInstanceName{false};

}  // namespace

constinit std::atomic<const std::int32_t*> g_hostDiagLevel{&kDefaultControl.DIAGLEVEL};

namespace {

// Where the level stands from now on: known where the host has no control block of its own or has it already.
void noteControl(const VekHost& host) noexcept {
  static constexpr std::int32_t kToBeAsked = std::numeric_limits<std::int32_t>::max();
  const VekInstanceControl* control =
      host.instanceControl == nullptr ? &kDefaultControl : host.instanceControl(host.context);
  g_hostDiagLevel.store(control == nullptr ? &kToBeAsked : &control->DIAGLEVEL, std::memory_order_release);
}

bool isKnownSize(std::size_t size) noexcept {
  for (const std::size_t known : kKnownSizes)
    if (size == known) return true;
  return false;
}

const VekInstanceControl* controlOf(const VekHost& host) noexcept {
  const VekInstanceControl* control = host.instanceControl == nullptr ? nullptr : host.instanceControl(host.context);
  return control == nullptr ? &kDefaultControl : control;
}

// Cuts the last component off a path; false when nothing would be left.
bool cutLastComponent(char* path) noexcept {
  char* slash = std::strrchr(path, '/');
  if (slash == nullptr || slash == path) return false;
  *slash = '\0';
  return true;
}

// The directory above the one that this library (or the program it is linked into) was loaded from.
struct LoadedFrom {
  char path[PATH_BYTES] = "/usr";

  LoadedFrom() noexcept {
    Dl_info info;
    if (::dladdr(&g_host, &info) == 0 || info.dli_fname == nullptr) return;
    const std::unique_ptr<char, void (*)(void*)> real(::realpath(info.dli_fname, nullptr), std::free);
    if (real == nullptr || std::strlen(real.get()) >= sizeof path) return;
    if (cutLastComponent(real.get()) && cutLastComponent(real.get())) ossCopyText(path, sizeof path, real.get());
  }
};

}  // namespace

std::uint64_t hostEngineUnitNumber() noexcept {
  std::uint64_t number = 0;
  VekEngineUnit unit;
  if (g_host.currentEngineUnitNumber != nullptr)
    number = g_host.currentEngineUnitNumber(g_host.context);
  else if (g_host.currentEngineUnit != nullptr && g_host.currentEngineUnit(g_host.context, &unit))
    number = unit.number;
  return number != 0 ? number : SQLT_NO_ENGINE_UNIT;
}

bool hostEngineUnit(VekEngineUnit* out) noexcept {
  if (g_host.currentEngineUnit == nullptr) return false;
  VekEngineUnit unit = {};
  if (!g_host.currentEngineUnit(g_host.context, &unit)) return false;
  *out = unit;
  return true;
}

bool hostApplication(VekApplication* out) noexcept {
  if (g_host.application == nullptr) return false;
  VekApplication application = {};
  if (!g_host.application(g_host.context, &application)) return false;
  *out = application;
  return true;
}

bool hostHasFields() noexcept { return g_host.application != nullptr || g_host.currentEngineUnit != nullptr; }

void hostWorkloadDisplay(EcfFunctionId id, bool entry) noexcept {
  const auto display = entry ? g_host.workloadDisplayEntry : g_host.workloadDisplayExit;
  if (display != nullptr) display(g_host.context, id);
}

void hostDumpEngineUnit(SqlzZrc zrc) noexcept {
  if (g_host.dumpEngineUnit != nullptr) g_host.dumpEngineUnit(g_host.context, zrc);
}

void hostPanic(SqlzZrc zrc, const char* text) noexcept {
  if (g_host.panic != nullptr) g_host.panic(g_host.context, zrc, text);
}

void hostKeepInstanceName() noexcept {
  if (g_keepsInstanceName.load(std::memory_order_acquire)) return;
  ossCopyText(g_instanceName, sizeof g_instanceName, vekInstanceName());
  g_keepsInstanceName.store(true, std::memory_order_release);
}

void hostInternNames() noexcept {
  for (std::size_t i = 0; i < g_host.functionNameCount; ++i)
    if (const VekFunctionName& function = g_host.functionNames[i]; function.name != nullptr)
      regionInternName(function.functionId, function.name);
}

const char* hostFunctionName(EcfFunctionId id) noexcept {
  for (std::size_t i = 0; i < g_host.functionNameCount; ++i)
    if (g_host.functionNames[i].functionId == id) return g_host.functionNames[i].name;
  return nullptr;
}

}  // namespace vek

SqlzZrc vekHostInstall(const VekHost* host) noexcept {
  if (host == nullptr) {
    vek::g_host = {};
    vek::noteControl(vek::g_host);
    return 0;
  }
  if (!vek::isKnownSize(host->size)) return SQLO_INV_PARM;
  VekHost copy = {};
  ::memcpy(&copy, host, host->size);
  if (copy.functionNames == nullptr) copy.functionNameCount = 0;
  const char* instance = vek::controlOf(copy)->instanceName;
  if (instance[0] != '\0' && !vek::isInstanceName(instance)) return SQLO_INV_PARM;
  const bool kept = vek::g_keepsInstanceName.load(std::memory_order_acquire);
  if (kept && instance[0] != '\0' && std::strcmp(instance, vek::g_instanceName) != 0) return SQLO_INV_PARM;
  vek::g_host = copy;
  vek::noteControl(copy);
  vek::hostInternNames();  // does nothing before the process attaches, which interns them then
  return 0;
}

const VekInstanceControl* vekInstanceControl() noexcept { return vek::controlOf(vek::g_host); }

const char* vekInstanceName() noexcept {
  if (vek::g_keepsInstanceName.load(std::memory_order_acquire)) return vek::g_instanceName;
  const char* name = vekInstanceControl()->instanceName;
  if (vek::isInstanceName(name)) return name;
  name = vek::ossEnvironment("VEKINSTANCE");
  return name != nullptr && vek::isInstanceName(name) ? name : "default";
}

const char* vekInstallationPath() noexcept {
  const char* path =
      vek::g_host.installationPath == nullptr ? nullptr : vek::g_host.installationPath(vek::g_host.context);
  if (path == nullptr || path[0] != '/') path = vek::ossEnvironment("VEKPATH");
  if (path != nullptr && path[0] == '/') return path;
  static const vek::LoadedFrom loadedFrom;
  return loadedFrom.path;
}
