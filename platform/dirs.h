// Where an instance keeps its things. Three directories and the place of its shared memory, each with a default that
// needs no privilege, each overridable; a process with raised privileges ignores the environment for all of them.
//
//   system    VEK_SYSTEM_DIR     /etc/veksys
//   user      VEK_USER_DIR       $XDG_CONFIG_HOME/veksys, else ~/.config/veksys
//   instance  VEK_INSTANCE_DIR   $XDG_STATE_HOME/veksys/<instance>, else ~/.local/state/veksys/<instance>
//   shared    VEK_SHM_DIR        /dev/shm; the names below it carry user and instance
//
// Values are absolute paths; anything else counts as not set. A user without a home directory gets
// /tmp/veksys-user.<user number> and /tmp/veksys-state.<user number>/<instance>.
#pragma once

#include <cstddef>

namespace vek {

inline constexpr std::size_t PATH_BYTES = 4096;

enum class Directory { kSystem, kUser, kInstance, kShared };

// Writes the path, terminated, without a separator at its end. Returns its length, 0 when it does not fit. Creates
// nothing.
std::size_t directoryPath(Directory which, char* path, std::size_t bytes) noexcept;

// The path of a shared object of the instance in force: <shared>/veksys.<user number>.<instance><suffix>.
std::size_t sharedObjectPath(const char* suffix, char* path, std::size_t bytes) noexcept;

// An instance name: 1 to 32 letters, digits, '_', '-' or '.', not beginning with '.'.
bool isInstanceName(const char* name) noexcept;

}  // namespace vek
