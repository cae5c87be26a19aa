// Shared vocabulary: return codes (ZRC), function identifiers, component numbers.
//
// Everything here is a value or a pure function over one; safe from any thread.
#pragma once

#include <cstdint>

// A return code (ZRC). Zero is success, negative an error, positive information or a warning.
//
//   31      error flag
//   30..24  error type, 0..34
//   23..16  component that defined the code
//   15..0   number of the code within its error type
//
// Type 3 (unexpected operating-system error) uses bits 23..0 as one number, so that an operating-system error
// value is carried whole.
using SqlzZrc = std::int32_t;

inline constexpr std::uint32_t SQLZ_ZRC_ERROR_FLAG = 0x80000000U;
inline constexpr std::uint32_t SQLZ_ZRC_TYPE_MASK = 0x7F000000U;
inline constexpr std::uint32_t SQLZ_ZRC_COMPONENT_MASK = 0x00FF0000U;
inline constexpr std::uint32_t SQLZ_ZRC_NUMBER_MASK = 0x0000FFFFU;
inline constexpr std::uint32_t SQLZ_ZRC_TYPE3_NUMBER_MASK = 0x00FFFFFFU;
inline constexpr unsigned SQLZ_ZRC_TYPE_SHIFT = 24;
inline constexpr unsigned SQLZ_ZRC_COMPONENT_SHIFT = 16;
inline constexpr std::uint32_t SQLZ_ZRC_TYPE_COUNT = 35;
inline constexpr std::uint32_t SQLZ_ZRC_TYPE_OS_ERROR = 3;
inline constexpr std::uint32_t SQLZ_COMPONENT_SQLNN = 0x31;  // its codes bypass the SQL-code map

static_assert((SQLZ_ZRC_ERROR_FLAG ^ SQLZ_ZRC_TYPE_MASK ^ SQLZ_ZRC_COMPONENT_MASK ^ SQLZ_ZRC_NUMBER_MASK) ==
              0xFFFFFFFFU);

// The error type of a code, 0..127 (valid ones are below SQLZ_ZRC_TYPE_COUNT).
constexpr std::uint32_t sqlzZrcType(SqlzZrc zrc) noexcept {
  return (static_cast<std::uint32_t>(zrc) & SQLZ_ZRC_TYPE_MASK) >> SQLZ_ZRC_TYPE_SHIFT;
}

// The component byte of a code.
constexpr std::uint32_t sqlzZrcComponent(SqlzZrc zrc) noexcept {
  return (static_cast<std::uint32_t>(zrc) & SQLZ_ZRC_COMPONENT_MASK) >> SQLZ_ZRC_COMPONENT_SHIFT;
}

// The number of a code: 24 bits for type 3, 16 bits for every other type.
constexpr std::uint32_t sqlzZrcNumber(SqlzZrc zrc) noexcept {
  return static_cast<std::uint32_t>(zrc) &
         (sqlzZrcType(zrc) == SQLZ_ZRC_TYPE_OS_ERROR ? SQLZ_ZRC_TYPE3_NUMBER_MASK : SQLZ_ZRC_NUMBER_MASK);
}

// Reads eight hex digits as a code: sqlzZrc(0x8B0F0000).
constexpr SqlzZrc sqlzZrc(std::uint32_t bits) noexcept { return static_cast<SqlzZrc>(bits); }

// A function identifier names a function in traces, log records and call-outs.
//
//   31..27  the constant 3
//   26..19  component
//   18..0   number of the function within its component
using EcfFunctionId = std::uint32_t;

inline constexpr std::uint32_t ECF_TAG = 3U << 27;
inline constexpr std::uint32_t ECF_TAG_MASK = 0xF8000000U;
inline constexpr unsigned ECF_COMPONENT_SHIFT = 19;
inline constexpr std::uint32_t ECF_COMPONENT_MASK = 0xFFU << ECF_COMPONENT_SHIFT;
inline constexpr std::uint32_t ECF_NUMBER_MASK = 0x0007FFFFU;

static_assert(ECF_TAG == 0x18000000U);
static_assert((ECF_TAG_MASK ^ ECF_COMPONENT_MASK ^ ECF_NUMBER_MASK) == 0xFFFFFFFFU);

// The identifier of a component's function; each number is cut to its bits.
constexpr EcfFunctionId ecfFunctionId(std::uint32_t component, std::uint32_t number) noexcept {
  return ECF_TAG | ((component & 0xFFU) << ECF_COMPONENT_SHIFT) | (number & ECF_NUMBER_MASK);
}

// The component of an identifier.
constexpr std::uint32_t ecfComponent(EcfFunctionId id) noexcept {
  return (id & ECF_COMPONENT_MASK) >> ECF_COMPONENT_SHIFT;
}

// The function's number within its component.
constexpr std::uint32_t ecfNumber(EcfFunctionId id) noexcept { return id & ECF_NUMBER_MASK; }

// Whether a word has an identifier's tag bits.
constexpr bool ecfIsFunctionId(EcfFunctionId id) noexcept { return (id & ECF_TAG_MASK) == ECF_TAG; }

// The component identifier of a return code: function number 0 of the code's component.
constexpr EcfFunctionId ecfComponentIdOfZrc(SqlzZrc zrc) noexcept {
  return (static_cast<std::uint32_t>(zrc) & SQLZ_ZRC_COMPONENT_MASK) * 8U | ECF_TAG;
}

static_assert(ecfFunctionId(0x1A, 8) == 0x18D00008U && ecfFunctionId(0x86, 9) == 0x1C300009U);
static_assert(ecfComponentIdOfZrc(sqlzZrc(0x8B0F0000U)) == ecfFunctionId(0x0F, 0));
