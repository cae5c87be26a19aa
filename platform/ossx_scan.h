// Reading the text of a number at once instead of character by character.
//
// Texts of up to 48 characters whose digits the width holds exactly, which are nearly all, are worked on in three
// blocks of 16: where the digits end is found with one comparison per block, the gap of the point is closed by choosing
// each byte from one of two loads, and the digits become declets without going through a binary number. There is no
// loop and hardly a branch that depends on the text. What this refuses goes the long way and is judged there.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/ossx.h"

namespace vek {

// Reads the exponent of a text from behind its E to the end and adds it to `out`. False: it is none. One far beyond
// every width stays there, with room to add the digits of any text.
bool dfpReadExponent(const char* at, const char* end, std::int64_t* out) noexcept;

// Reads any text, the long way.
template <class Format>
typename Format::Value dfpReadLong(const char* text, std::size_t bytes) noexcept;

}  // namespace vek
