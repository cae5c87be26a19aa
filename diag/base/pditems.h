// Data items of log records as text.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "diag/base/pdpen.h"

namespace vek {

// Writes what a type is called in records: "unsigned integer"; a structure and an unknown type by its number.
void pdPenTypeDescription(PdPen& pen, std::uint32_t type) noexcept;

// Writes the value of an item, each of its lines ended by CR LF; how is a matter of its type (PdPrint). Reads `size`
// bytes at `data` and not one more. A value that has not the size its type needs is shown as bytes, a null pointer as
// such. Structure types go to their formatter through the port `formatItem`.
void pdPenItemValue(PdPen& pen, std::uint32_t type, std::uint32_t size, const void* data) noexcept;

// Writes bytes as lines of offset, hex and, when asked for, characters:
//
//   0x0000 : 5445 5354 0001 0203 0405 0607 0809 0A0B    TEST............
void pdPenHexDump(PdPen& pen, const void* data, std::size_t size, bool withCharacters) noexcept;

// How many characters at the beginning of a text are not control characters.
std::size_t pdCountVisible(std::string_view text) noexcept;

// Whether a line begins like a section of a record: a label of eight capitals, digits, blanks and '#', a colon, a
// blank.
bool pdOpensSection(std::string_view text) noexcept;

// How many lines of a text do.
std::size_t pdCountSections(std::string_view text) noexcept;

// To be called before a line of a foreign text is written: at the beginning of a line of the record, one that looks
// like the beginning of a section gets a blank in front, so that no reader takes it for one.
void pdPenShield(PdPen& pen, std::string_view text) noexcept;

// Writes text of any bytes so that it stays text, and text of its section: line ends become CR LF, control characters
// other than the tabulator '.', and lines that look like the beginning of a section are shielded.
void pdPenText(PdPen& pen, std::string_view text) noexcept;

// Ends the line, unless the text before it has done so.
void pdPenEndLine(PdPen& pen) noexcept;

// Writes what stands for an error of the operating system: its name, if it has one, and the number: "ENOSPC (28)".
void pdPenOsError(PdPen& pen, int error) noexcept;

// Writes the system's text for it, in double quotes behind a blank; nothing when there is none.
void pdPenOsErrorText(PdPen& pen, int error) noexcept;

}  // namespace vek
