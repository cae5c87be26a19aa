// The client: an application that has the engine load a file and verify it, one request after the other, and keeps what
// the communications areas of the replies tell.
#pragma once

#include <veksys/diag/sqlca.h>
#include <veksys/types.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "blocks.h"
#include "engine.h"
#include "findings.h"

namespace demo {

struct SectionTotal {
  std::uint64_t packages = 0;
  std::uint64_t installedKib = 0;
};

struct WorkerTotal {
  std::uint64_t requests = 0;
  std::uint64_t stanzas = 0;
  std::uint64_t busyNs = 0;
  std::uint64_t poolPeakBytes = 0;
};

// The reply that the report shows: the last with an error, else the last with a warning, else the last.
struct ShownReply {
  std::uint32_t number = 0;
  RequestKind kind = RequestKind::kLoad;
  sqlca area = {};
};

// How far verifying came. It is left out when the index is incomplete, since it would find faults that are none.
enum class Verified { kNothing, kPart, kAll };

struct Outcome {
  std::uint64_t requests = 0;
  std::uint64_t requestsWithError = 0;
  std::uint64_t requestsWithWarning = 0;
  std::uint64_t requestsLost = 0;  // among those with an error: no worker answered them
  std::uint64_t stanzas = 0;
  std::uint64_t packages = 0;
  std::uint64_t installedKib = 0;
  std::uint64_t linesRead = 0;
  std::uint64_t bytesRead = 0;
  SqlzZrc readCode = 0;  // of an error that ended reading the file
  Verified verified = Verified::kNothing;
  std::map<std::string, SectionTotal> sections;
  std::vector<WorkerTotal> workers;
  FindingTable findings = {};
  ShownReply shown;
};

class Client {
 public:
  Client(Engine& engine, BlockReader& reader) : engine_(engine), reader_(reader) {}

  // Loads and verifies; returns what came of it.
  Outcome run();

 private:
  struct LoadedBlock {
    std::uint32_t number;
    unsigned worker;
  };

  void loadFile();
  void verifyPackages();
  Slot& newRequest(RequestKind kind);
  void finishRequest(Slot& slot);
  void finishAll();
  void addTotals(const Slot& slot);
  void addToShown(const Slot& slot);

  Engine& engine_;
  BlockReader& reader_;
  std::vector<LoadedBlock> loaded_;
  std::uint32_t lastNumber_ = 0;
  Outcome outcome_;
};

}  // namespace demo
