// PD types: what a data item of a trace record or a log record is, and so how it is printed.
//
// Types below PD_TYPE_COUNT are generic; from PD_TYPE_STRUCTURES on a type belongs to a registered structure formatter.
#pragma once

#include <cstddef>
#include <cstdint>

// The generic types by name.
enum PdType : std::uint32_t {
#define PD_TYPE(number, name, description, print) name = number,
#include "veksys/pd_types.def"
#undef PD_TYPE
};

inline constexpr std::uint32_t PD_TYPE_STRUCTURES = 0x18000000U;

inline constexpr std::size_t PD_TYPE_COUNT =
#define PD_TYPE(number, name, description, print) 1 +
#include "veksys/pd_types.def"
#undef PD_TYPE
    0;

// How the value of a generic type is printed. Integers have 1, 2, 4 or 8 bytes, in the order of the machine; a value
// that has not the size its type needs is printed as bytes.
enum class PdPrint : std::uint8_t {
  kBytes,       // offset, hex and characters
  kBytesAlone,  // offset and hex
  kPointer,     // 0x and all its digits
  kUnsigned,    // decimal
  kSigned,      // decimal with its sign
  kHexInteger,  // 0x and all its digits
  kText,        // to its terminator or its size; control characters as '.'
  kRawText,     // `size` bytes as they stand
  kCharacter,   // one byte
  kBool,        // true for any integer but 0
  kBitmask,     // hex, and the numbers of the bits that are set
  kFunction,    // a function identifier: component and name
  kCodePath,    // the numbers of the bits that are set, in order: the points a function passed
  kSignal,      // number and name
  kSignalInfo,  // a siginfo_t
  kReturnCode,  // a ZRC with its description
  kOsError,     // errno: number, name and text
  kTime,        // nanoseconds since 1970 UTC (8 bytes), as local time
  kIpAddress,   // 4 or 16 bytes in network order
  kUuid,        // 16 bytes
  kFloat,       // 4 or 8 bytes, shortest form that reads back as the same value
};
