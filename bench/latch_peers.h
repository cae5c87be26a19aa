// Locks beside which the latches are measured. One that was not there at build is not in the list.
#pragma once

#include <span>

namespace bench {

// One lock of a kind, to be had through calls. The shared calls are null where there is no shared mode.
struct Lock {
  const char* name;
  void (*lock)();
  void (*unlock)();
  void (*lockShared)();
  void (*unlockShared)();
};

// std::mutex first, std::shared_mutex second, then the others.
std::span<const Lock> latchPeers();

}  // namespace bench
