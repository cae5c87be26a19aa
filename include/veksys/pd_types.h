// PD types: what a data item of a trace record or a log record is, and so how it is printed.
//
// Types below PD_TYPE_STRUCTURES are generic; from there on a type belongs to a registered structure formatter.
#pragma once

#include <cstdint>

// The generic types by name.
enum PdType : std::uint32_t {
#define PD_TYPE(number, name, description) name = number,
#include "veksys/pd_types.def"
#undef PD_TYPE
};

inline constexpr std::uint32_t PD_TYPE_STRUCTURES = 0x18000000U;
