// The trace in the formats of other programs.
#pragma once

#include <string>

#include "trace_pass.h"

namespace veksys {

// Chrome trace-event JSON into a file ("-" is standard output). Answers the bytes written.
std::uint64_t exportChrome(TracePass& pass, const std::string& file);

// The stream of a Common Trace Format trace alone, without its description.
std::uint64_t exportCtfStream(TracePass& pass, const std::string& file);

// Common Trace Format 1.8 into a new or empty directory: a metadata file and one stream.
std::uint64_t exportCtf(TracePass& pass, const std::string& directory);

}  // namespace veksys
