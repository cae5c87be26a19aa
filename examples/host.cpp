#include "host.h"

#include <pthread.h>
#include <veksys/codes.h>
#include <veksys/host.h>

#include <cstdlib>
#include <cstring>
#include <iterator>

#include "functions.h"

namespace demo {
namespace {

constexpr VekFunctionName kFunctionNames[] = {
#define DEMO_FUNCTION(component, number, name) {FID_##name, "demo::" #name},
#include "functions.def"
#undef DEMO_FUNCTION
};

constinit thread_local VekEngineUnit t_unit = {0, ""};

// Asked on every traced entry, so both answers are a read of the thread's own memory.
std::uint64_t unitNumber(void*) { return t_unit.number; }

bool currentUnit(void*, VekEngineUnit* out) {
  if (t_unit.number == 0) return false;
  *out = t_unit;
  return true;
}

const VekInstanceControl* instanceControl(void* context) { return static_cast<const VekInstanceControl*>(context); }

void copyText(char* target, std::size_t bytes, const char* text) noexcept {
  std::strncpy(target, text, bytes - 1);
  target[bytes - 1] = '\0';
}

}  // namespace

SqlzZrc installHost() noexcept {
  static VekInstanceControl control = {};
  control.DIAGLEVEL = 6;
  control.NOTIFYLEVEL = 3;
  const char* name = std::getenv("VEKINSTANCE");
  if (name == nullptr || name[0] == '\0') name = "demo";
  if (std::strlen(name) >= sizeof control.instanceName) return SQLO_INV_PARM;
  copyText(control.instanceName, sizeof control.instanceName, name);

  VekHost host = {};
  host.size = sizeof host;
  host.context = &control;
  host.currentEngineUnit = currentUnit;
  host.currentEngineUnitNumber = unitNumber;
  host.instanceControl = instanceControl;
  host.functionNames = kFunctionNames;
  host.functionNameCount = std::size(kFunctionNames);
  return vekHostInstall(&host);
}

EngineUnit::EngineUnit(std::uint64_t number, const std::string& name) noexcept {
  t_unit.number = number;
  copyText(t_unit.name, sizeof t_unit.name, name.c_str());
  char threadName[16];  // as many bytes as the kernel keeps
  copyText(threadName, sizeof threadName, name.c_str());
  ::pthread_setname_np(::pthread_self(), threadName);
}

EngineUnit::~EngineUnit() { t_unit.number = 0; }

}  // namespace demo
