// The instance the command works on, and whether it may.
#pragma once

#include <string>
#include <string_view>

#include "veksys/types.h"

namespace veksys {

// What an instance may be called, for messages.
inline constexpr std::string_view INSTANCE_NAME_FORMS =
    "1 to 32 letters, digits, '_', '-' or '.', not beginning with '.'";

// Makes `name` the instance of this process; an empty name leaves it to VEKINSTANCE. Throws Failure for a name that no
// instance can have. Call it before anything else of the library.
void useInstance(const std::string& name);

// Keeps the library from attaching to the instance and from tracing what this command itself does: looking at a code
// or a file must leave nothing behind in shared memory.
void stayDetached();

// Whether a process of this user has left shared memory of the instance behind; attaching would otherwise create it.
bool instanceExists();

// Whether it has a trace; attaches to nothing.
bool instanceHasTrace();

// Attaches to an instance that exists. Throws Failure, in plain words, when the name belongs to another user only,
// when nobody has used the instance yet, or when its region cannot be shared.
void attachToExisting();

// The same for a command that may begin an instance.
void attachOrCreate();

// "the instance region has another layout version ..." for a code of the region; empty for any other code.
std::string explainRegionCode(SqlzZrc code);

// "SQLT_TRACE_NO_SPACE (0x....: text)", for codes that have no sentence of their own.
std::string describeCode(SqlzZrc code);

}  // namespace veksys
