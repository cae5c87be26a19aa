#include "platform/dirs.h"

#include <pwd.h>
#include <string.h>
#include <unistd.h>

#include "platform/osse.h"
#include "veksys/host.h"

namespace vek {
namespace {

struct Place {
  const char* override;   // environment variable that names the directory itself
  const char* base;       // environment variable of the base directory, or null
  const char* underHome;  // below the home directory when the base is not set, or null
  const char* fixed;      // when there is neither; with the user's number behind it below /tmp, which all users share
};

constexpr Place kPlaces[] = {
    {"VEK_SYSTEM_DIR", nullptr, nullptr, "/etc/veksys"},
    {"VEK_USER_DIR", "XDG_CONFIG_HOME", ".config", "/tmp/veksys-user."},
    {"VEK_INSTANCE_DIR", "XDG_STATE_HOME", ".local/state", "/tmp/veksys-state."},
    {"VEK_SHM_DIR", nullptr, nullptr, "/dev/shm"},
};

// The home directory from the environment, else from the user database; false when there is none.
bool homeDirectory(char* path, std::size_t bytes) noexcept {
  const OssUncancelled here;
  const char* home = ossEnvironment("HOME");
  char storage[2048];
  passwd entry;
  passwd* found = nullptr;
  if (home == nullptr || home[0] != '/') {
    if (::getpwuid_r(::geteuid(), &entry, storage, sizeof storage, &found) != 0 || found == nullptr) return false;
    home = found->pw_dir;
  }
  const std::size_t length = ossSnprintf(path, bytes, "%s", home);
  return length > 1 && length + 1 < bytes;
}

std::size_t whenItFits(std::size_t length, std::size_t bytes) noexcept { return length + 1 < bytes ? length : 0; }

std::size_t copyPath(const char* named, char* path, std::size_t bytes) noexcept {
  std::size_t length = whenItFits(ossSnprintf(path, bytes, "%s", named), bytes);
  while (length > 1 && path[length - 1] == '/') path[--length] = '\0';
  return length;
}

std::size_t baseOf(const Place& place, char* path, std::size_t bytes) noexcept {
  const char* base = place.base == nullptr ? nullptr : ossEnvironment(place.base);
  if (base != nullptr && base[0] == '/') return ossSnprintf(path, bytes, "%s/veksys", base);
  char home[PATH_BYTES];
  if (place.underHome != nullptr && homeDirectory(home, sizeof home))
    return ossSnprintf(path, bytes, "%s/%s/veksys", home, place.underHome);
  if (place.underHome != nullptr) return ossSnprintf(path, bytes, "%s%u", place.fixed, ossUserId());
  return ossSnprintf(path, bytes, "%s", place.fixed);
}

bool isNameCharacter(char c) noexcept {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '-' || c == '.';
}

}  // namespace

std::size_t directoryPath(Directory which, char* path, std::size_t bytes) noexcept {
  const Place& place = kPlaces[static_cast<int>(which)];
  const char* named = ossEnvironment(place.override);
  if (named != nullptr && named[0] == '/') return copyPath(named, path, bytes);
  std::size_t length = baseOf(place, path, bytes);
  if (which == Directory::kInstance) length += ossSnprintf(path + length, bytes - length, "/%s", vekInstanceName());
  return whenItFits(length, bytes);
}

std::size_t sharedObjectPath(const char* suffix, char* path, std::size_t bytes) noexcept {
  std::size_t length = directoryPath(Directory::kShared, path, bytes);
  if (length == 0) return 0;
  length += ossSnprintf(path + length, bytes - length, "/veksys.%u.%s%s", ossUserId(), vekInstanceName(), suffix);
  return whenItFits(length, bytes);
}

bool isInstanceName(const char* name) noexcept {
  const std::size_t length = ::strnlen(name, 33);
  if (length == 0 || length > 32 || name[0] == '.') return false;
  for (std::size_t i = 0; i < length; ++i)
    if (!isNameCharacter(name[i])) return false;
  return true;
}

}  // namespace vek
