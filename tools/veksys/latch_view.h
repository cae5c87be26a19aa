// What `veksys latch` prints of a picture of an instance's latches.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "command.h"
#include "latch_graph.h"

namespace veksys {

struct LatchPicture {
  std::vector<LatchSight> sights;
  LatchGraph graph;
  std::int64_t takenNs;  // of the last look, since 1970
  std::int64_t spanNs;   // between the first and the last look
};

// Which latches are shown. One is when some entry of it passes; it is shown with all of its entries then. What is wrong
// is told of the whole instance.
struct LatchFilter {
  std::vector<std::string> processes;  // numbers, or patterns of names
  std::vector<std::string> types;
  bool waitedFor = false;
  bool all = false;  // momentary holds as well

  bool chooses(const LatchPicture& picture, const LatchNode& latch) const;
  bool chooses(const SqloLatchEntry& entry) const;
};

std::string latchTypeLabel(std::uint32_t typeId);

void putLatches(Command& command, const LatchPicture& picture, const LatchFilter& filter);

// One object: a document, or one line of a stream of them.
void putLatchesAsJson(Output& out, const LatchPicture& picture, const LatchFilter& filter, bool asLine);

}  // namespace veksys
