// Return codes explained: the catalogue of names and texts, the map to SQL codes, printable descriptions, messages of
// SQL codes, and codes for errors of the operating system.
//
// Everything here may be called from any thread at any time. The look-ups never fail: a code beyond the map has the SQL
// code -901, and one that is not catalogued a description made from the message of that number.
#pragma once

#include <cstddef>
#include <cstdint>

#include "veksys/codes.h"
#include "veksys/export.h"
#include "veksys/types.h"

// One entry of the catalogue. Texts are one line of printable ASCII and live as long as the library.
struct SqlzZrcEntry {
  std::int32_t code;
  const char* name;         // "SQLO_NOMEM"
  const char* description;  // "No Memory Available"
};

inline constexpr std::int32_t SQLZ_SQLCODE_INTERNAL_ERROR = -901;  // of a code without an entry in the map
inline constexpr std::int32_t SQLZ_SQLCODE_LOCK_LIST_FULL = -912;  // the one with reasons of its own
inline constexpr std::uint16_t SQLZ_TOKEN_KIND_DEFAULT = 1;
inline constexpr std::uint32_t SQLT_MAPPED_CODE_DEFAULT = 1;

extern "C" {

// ---- the catalogue ----------------------------------------------------------------------------------------------

// The catalogue: SQLZ_ZRC_MAP_COUNT entries. Codes are unique except 0, which success aliases share; names are unique.
VEK_EXPORT const SqlzZrcEntry* sqlzGetZrcMap() noexcept;

// The entry of exactly this code (for 0 that of SQLZ_RC_OK), or null.
VEK_EXPORT const SqlzZrcEntry* sqlzFindZrc(SqlzZrc zrc) noexcept;

// The entry of that name, whatever its case, or null.
VEK_EXPORT const SqlzZrcEntry* sqlzFindZrcByName(const char* name) noexcept;

// What the error type of a code stands for, e.g. "Communication Error"; null for a type above 34.
VEK_EXPORT const char* sqlzErrorTypeText(std::uint32_t type) noexcept;

// ---- the map to SQL codes ---------------------------------------------------------------------------------------

// The SQL code that applications get for a return code. Any out-pointer may be null.
//
//   typeOut        the error type in its place: type << 24
//   reasonOut      the number of the code (24 bits for type 3); for SQL code -912 instead 1 for the code 0x8510000A
//                  and 2 for any other
//   tokenKindOut   how the message tokens are formed: 0, 1 or 3
//   mappedCodeOut  the secondary code
//
// A code of component 0x31, of a type above 34, or with a number past its type's entries gives -901, 1, 1. The map
// knows no success: for 0 it answers the standard entry of type 0 (-902). Callers ask it for failures.
VEK_EXPORT std::int32_t sqlzGetZRCInfo(SqlzZrc zrc, std::uint32_t* typeOut, std::uint32_t* reasonOut,
                                       std::uint16_t* tokenKindOut, std::uint32_t* mappedCodeOut) noexcept;

// The secondary code alone; 1 when there is none.
VEK_EXPORT std::uint32_t sqlt_mapzrc(SqlzZrc zrc) noexcept;

// ---- descriptions -----------------------------------------------------------------------------------------------

// Writes the printable description of a code:
//
//   ZRC=0x8B0F0000=-1961951232=SQLO_NOMEM "No Memory Available"
//
// A code that is not in the catalogue, but is with its component cleared, shows that name and ", SQLT_" with its own
// component's prefix. One found neither way shows the message of the SQL code with its number, wrapped, or an empty
// line when there is no such message. A description that would pass the line width goes on a line of its own, behind
// ten blanks. Every description ends in CR LF.
//
//   Result   the position after the text, where the terminator stands
//   buffer   `bufferSize` bytes, never passed; a text that does not fit is cut. A null or empty buffer is returned as
//            it came.
VEK_EXPORT char* pdZRCGetDescription(SqlzZrc zrc, char* buffer, std::size_t bufferSize) noexcept;

// The line width of descriptions: 80 characters in wide mode, else 70. One setting for the whole process.
VEK_EXPORT void pdSetWideMessages(bool wide) noexcept;
VEK_EXPORT bool pdWideMessages() noexcept;

// ---- messages of SQL codes --------------------------------------------------------------------------------------

// Writes the message of an SQL code, "SQL0902N  A system error ...", terminated and cut to the buffer.
//
//   Result   the characters written, 0 when there is no message (the buffer then holds an empty text)
//
// The messages are read once per process from veksql.mo, a GNU message object, in the first of these directories that
// is named: VEK_MESSAGE_DIR (ignored with raised privileges) alone when it is set; else share/veksys/locale/en_US below
// the installation directory, else the directory chosen when the library was built. A catalogue that is absent,
// damaged or above 4 MiB counts as one without messages.
VEK_EXPORT std::size_t sqlzGetSqlMessage(std::int32_t sqlcode, char* buffer, std::size_t bufferSize) noexcept;

// ---- errors of the operating system -----------------------------------------------------------------------------

// The return code for an errno value met on a file, or on a TCP/IP connection. 0 gives 0. An error without a code of
// its own gives the type-3 code 0x83000000 with the low 24 bits of the value.
VEK_EXPORT SqlzZrc sqloMapUnexpectedFileSystemErrorToZRC(int error) noexcept;
VEK_EXPORT SqlzZrc sqloMapTcpIpErrorToZRC(int error) noexcept;

// The other way round: whether a code is what that error is turned into (or means the same without being it), and the
// lowest such error, 0 when there is none.
VEK_EXPORT bool sqloZrcStandsForErrno(SqlzZrc zrc, int error) noexcept;
VEK_EXPORT int sqloErrnoOfZrc(SqlzZrc zrc) noexcept;

}  // extern "C"
