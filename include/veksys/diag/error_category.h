// Return codes as std::error_code.
//
//   std::error_code error = SqlzErrc(rc);
//   if (error == std::errc::not_enough_memory) ...
//   throw std::system_error(error);
//
// A warning (a positive return code) is a value other than 0 and so reads as an error; convert failures only.
#pragma once

#include <system_error>
#include <type_traits>

#include "veksys/diag/rc.h"

// A return code on its way into a std::error_code.
enum class SqlzErrc : SqlzZrc {};

template <>
struct std::is_error_code_enum<SqlzErrc> : std::true_type {};

// The category, one object for all programs and libraries of a process. Its message is the catalogue's text, else the
// printable description. A code compares equal to every condition of the standard library that it stands for
// (sqloZrcStandsForErrno): a file that is not there, a connection that was refused, no memory.
VEK_EXPORT const std::error_category& sqlzErrorCategory() noexcept;

// Called by std::error_code for a SqlzErrc.
inline std::error_code make_error_code(SqlzErrc code) noexcept {
  return {static_cast<SqlzZrc>(code), sqlzErrorCategory()};
}
