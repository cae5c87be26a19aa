#include "instance.h"

#include <dirent.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <charconv>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>

#include "failure.h"
#include "text.h"
#include "veksys/codes.h"
#include "veksys/diag/rc.h"
#include "veksys/diag/trace_control.h"
#include "veksys/host.h"

namespace veksys {
namespace {

VekInstanceControl g_control;

std::string sharedDirectory() {
  const char* named = std::getenv("VEK_SHM_DIR");
  return named != nullptr && named[0] == '/' ? named : "/dev/shm";
}

std::string objectPath(uid_t user) {
  return sharedDirectory() + "/veksys." + std::to_string(user) + "." + vekInstanceName();
}

bool pathExists(const std::string& path) {
  struct stat status;
  return ::lstat(path.c_str(), &status) == 0;
}

std::string userName(uid_t user) {
  const passwd* entry = ::getpwuid(user);
  const std::string number = "uid " + std::to_string(user);
  return entry == nullptr ? "the user with " + number : "user " + std::string(entry->pw_name) + " (" + number + ")";
}

// Another user who has an instance of this name.
std::optional<uid_t> otherOwner() {
  const std::unique_ptr<DIR, int (*)(DIR*)> directory(::opendir(sharedDirectory().c_str()), ::closedir);
  if (directory == nullptr) return std::nullopt;
  while (const dirent* entry = ::readdir(directory.get())) {
    std::string_view name = entry->d_name;
    if (!name.starts_with("veksys.")) continue;
    name.remove_prefix(7);
    uid_t user = 0;
    const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), user);
    name.remove_prefix(static_cast<std::size_t>(end - name.data()));
    if (error == std::errc{} && user != ::geteuid() && name.starts_with('.') && name.substr(1) == vekInstanceName())
      return user;
  }
  return std::nullopt;
}

struct RegionSentence {
  SqlzZrc code;
  const char* sentence;
};
constexpr RegionSentence kRegionSentences[] = {
    {SQLO_REGION_VERSION, "runs with another layout version of the library; use the command that belongs to it"},
    {SQLO_REGION_OWNER, "has shared memory that belongs to another user or is open to others; it is not used"},
    {SQLO_REGION_DAMAGED, "has damaged shared memory that is still in use; end its processes, then it is replaced"},
    {SQLO_REGION_BUSY, "has its lock kept by a stopped process; continue or end that process"},
    {SQLO_REGION_SLOTS, "has all its 1,024 process slots taken"},
    {SQLO_REGION_NO_SPACE, "finds no room in the shared-memory file system"},
    {SQLO_REGION_DENIED, "has shared memory that this user may not open or create"},
    {SQLO_REGION_NO_MEMORY, "finds no memory to attach with"},
};

void refuseUnshared() {
  if (std::getenv("VEK_SKIP_TRACE") != nullptr)
    sayNo("VEK_SKIP_TRACE is set, which keeps this command away from the trace; unset it for this command.");
  if (!pathExists(sharedDirectory())) sayNo("VEK_SHM_DIR names \"" + sharedDirectory() + "\", which does not exist.");
  const SqlzZrc status = vekInstanceStatus();
  if (status == 0) {
    sqltInquireTraceBufferSize();  // attaches to the trace words, and is no traced function itself
    return;
  }
  const std::string sentence = explainRegionCode(status);
  sayNo(sentence.empty()
            ? "Instance " + std::string(vekInstanceName()) + " cannot be attached: " + describeCode(status) + "."
            : sentence);
}

}  // namespace

void useInstance(const std::string& name) {
  if (name.empty()) {
    const char* variable = std::getenv("VEKINSTANCE");
    if (variable != nullptr && variable[0] != '\0' && std::strcmp(variable, vekInstanceName()) != 0)
      wrongUse("VEKINSTANCE holds \"" + std::string(variable) +
               "\", which is no instance name: " + std::string(INSTANCE_NAME_FORMS) + ".");
    return;
  }
  VekHost host = {};
  host.size = sizeof host;
  host.instanceControl = [](void*) -> const VekInstanceControl* { return &g_control; };
  g_control = *vekInstanceControl();
  g_control.instanceName[0] = '\0';
  if (name.size() < sizeof g_control.instanceName) std::memcpy(g_control.instanceName, name.c_str(), name.size() + 1);
  if (g_control.instanceName[0] == '\0' || vekHostInstall(&host) != 0)
    wrongUse("\"" + name + "\" is no instance name: " + std::string(INSTANCE_NAME_FORMS) + ".");
}

void stayDetached() { ::setenv("VEK_SKIP_TRACE", "1", 1); }

bool instanceExists() { return pathExists(objectPath(::geteuid())); }
bool instanceHasTrace() { return pathExists(objectPath(::geteuid()) + ":trace"); }

void attachToExisting() {
  const std::string name = vekInstanceName();
  if (!instanceExists()) {
    if (const auto owner = otherOwner())
      sayNo("Instance " + name + " belongs to " + userName(*owner) +
            "; another user's instance may not be looked at. Run the command as that user.");
    sayNo("Instance " + name + " has no shared memory in " + sharedDirectory() + ": no process of it has run here as " +
          userName(::geteuid()) + ".");
  }
  refuseUnshared();
}

void attachOrCreate() { refuseUnshared(); }

std::string explainRegionCode(SqlzZrc code) {
  for (const RegionSentence& row : kRegionSentences)
    if (row.code == code) return "Instance " + std::string(vekInstanceName()) + " " + row.sentence + ".";
  return "";
}

std::string describeCode(SqlzZrc code) {
  const SqlzZrcEntry* entry = sqlzFindZrc(code);
  Text text;
  if (entry != nullptr) {
    text.put(entry->name);
    text.put(" (");
  }
  text.hexCode(static_cast<std::uint32_t>(code));
  if (entry != nullptr) {
    text.put(", ");
    text.put(entry->description);
    text.put(")");
  }
  return std::string(text.view());
}

}  // namespace veksys
