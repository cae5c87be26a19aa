// What `veksys memory` prints of a picture of an instance's memory.
#pragma once

#include "command.h"
#include "memory_picture.h"

namespace veksys {

void putMemory(Command& command, const MemoryPicture& picture);

// One object: a document, or one line of a stream of them.
void putMemoryAsJson(Output& out, const MemoryPicture& picture, bool asLine);

// The text format of OpenMetrics, up to its "# EOF".
void putMemoryAsMetrics(Output& out, const MemoryPicture& picture);

}  // namespace veksys
