// Intel's decimal library, for tests and benchmarks. It has functions of the same names as the compiler's runtime, with
// other arguments, so that it lives in a shared library of its own that shows none of them.
#pragma once

#include <cstdint>

namespace peer {

// A decimal with a binary coefficient, lower word first. Of 64 bits the lower word alone.
struct IntelDecimal {
  std::uint64_t low;
  std::uint64_t high;
};

// Its rounding modes and conditions.
inline constexpr unsigned kIntelNearest = 0;
inline constexpr unsigned kIntelDown = 1;  // toward minus infinity
inline constexpr unsigned kIntelUp = 2;    // toward plus infinity
inline constexpr unsigned kIntelToZero = 3;
inline constexpr unsigned kIntelTiesAway = 4;
inline constexpr unsigned kIntelInvalid = 0x01;
inline constexpr unsigned kIntelDivisionByZero = 0x04;
inline constexpr unsigned kIntelOverflow = 0x08;
inline constexpr unsigned kIntelUnderflow = 0x10;
inline constexpr unsigned kIntelInexact = 0x20;

using IntelBinary = IntelDecimal (*)(IntelDecimal, IntelDecimal, unsigned rounding, unsigned* flags);
using IntelUnary = IntelDecimal (*)(IntelDecimal, unsigned rounding, unsigned* flags);

// One width of the library.
struct IntelWidth {
  IntelBinary add;
  IntelBinary subtract;
  IntelBinary multiply;
  IntelBinary divide;
  IntelBinary quantize;
  IntelUnary integralExact;
  IntelDecimal (*fromDensely)(IntelDecimal);  // from densely packed digits to a binary coefficient
  IntelDecimal (*toDensely)(IntelDecimal);
};

// The widths; null where the library is not installed.
const IntelWidth* intelDecimal64();
const IntelWidth* intelDecimal128();

// Of 128 bits alone.
IntelDecimal intelRead(const char* text, unsigned* flags);
void intelWrite(char* text, IntelDecimal value, unsigned* flags);
IntelDecimal intelNarrow(IntelDecimal value, unsigned rounding, unsigned* flags);
IntelDecimal intelWiden(IntelDecimal value, unsigned* flags);

}  // namespace peer
