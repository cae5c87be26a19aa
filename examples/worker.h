// A worker: a process with several threads that serve requests.
#pragma once

#include <cstdint>

#include "index.h"
#include "request.h"

namespace demo {

struct WorkerSetup {
  unsigned number;  // from 1
  unsigned threads;
  int socket;  // slot numbers come in and go out here, one per message
  Slot* slots;
  std::size_t slotCount;
  Index index;
};

// Serves requests until the coordinator closes its side or ends. Returns the exit code of the process.
int runWorker(const WorkerSetup& setup);

}  // namespace demo
