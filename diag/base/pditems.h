// Data items of log records as text.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "diag/base/pdpen.h"

namespace vek {

// What a type is called in records: "unsigned integer"; the structure's number for types from PD_TYPE_STRUCTURES on.
std::string_view pdTypeDescription(std::uint32_t type) noexcept;

// Writes the value of an item, each of its lines ended by CR LF; how is a matter of its type. Reads `size` bytes at
// `data` and not one more. A value that has not the size its type needs is shown as bytes, a null pointer as such.
// Structure types go to their formatter through the port `formatItem`.
void pdPenItemValue(PdPen& pen, std::uint32_t type, std::uint32_t size, const void* data) noexcept;

// Writes bytes as lines of offset, hex and, when asked for, characters:
//
//   0x0000 : 5445 5354 0001 0203 0405 0607 0809 0A0B    TEST............
void pdPenHexDump(PdPen& pen, const void* data, std::size_t size, bool withCharacters) noexcept;

// Writes text of any bytes so that it stays text: line ends become CR LF, control characters other than the tabulator
// '.'.
void pdPenText(PdPen& pen, std::string_view text) noexcept;

}  // namespace vek
