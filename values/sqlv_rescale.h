// Moving the decimal point of packed words: what is the same for every value of a source and a target descriptor.
#pragma once

#include <algorithm>

#include "values/sqlv_packed.h"
#include "values/sqlv_rounding.h"

namespace vek {

// Words of 64 bits serve where source and target both fit them.
template <class Word>
struct SqlvRescale {
  Word largest;  // source digits above it have integer digits that the target has no room for
  unsigned up;   // bits; one of the two is 0
  unsigned down;

  // The target keeps its own count of integer digits, and of the source all that stand behind the point.
  SqlvRescale(SqlvDescriptor from, SqlvDescriptor to) noexcept
      : largest(static_cast<Word>(
            kSqlvLargestPackedOf[std::min<unsigned>(to.precision + 0U - to.scale + from.scale, SQLV_PRECISION_MAX)])),
        up(to.scale > from.scale ? kSqlvDigitBits * (to.scale + 0U - from.scale) : 0U),
        down(from.scale > to.scale ? kSqlvDigitBits * (from.scale + 0U - to.scale) : 0U) {}

  // The word at the new scale, digits cut. False: it does not fit.
  bool cut(Word word, Word* result) const noexcept {
    const Word source = word >> kSqlvDigitBits;
    const Word digits = source << up >> down;
    *result = digits << kSqlvDigitBits | sqlvi_sign(sqlvi_isNegative(static_cast<std::uint64_t>(word)), digits);
    return source <= largest;
  }

  // The same in a rounding mode; only where digits are dropped.
  bool rounded(Word word, std::uint32_t rounding, unsigned precision, Word* result) const noexcept {
    const Word source = word >> kSqlvDigitBits;
    const std::uint64_t negative = sqlvi_isNegative(static_cast<std::uint64_t>(word));
    Word digits = source >> down;
    const bool odd = (static_cast<std::uint64_t>(digits) & 1U) != 0;
    if (dfpRoundsUp(rounding, negative != 0, odd, restOf(source))) digits = static_cast<Word>(sqlvi_increment(digits));
    *result = digits << kSqlvDigitBits | sqlvi_sign(negative, digits);
    return digits <= static_cast<Word>(kSqlvLargestPackedOf[precision]);
  }

 private:
  // What the dropped digits amount to.
  DfpRest restOf(Word source) const noexcept {
    const Word unit = static_cast<Word>(1) << down;
    const Word rest = source & (unit - 1);
    const Word half = (unit >> kSqlvDigitBits) * 5;
    if (rest == 0) return DfpRest::Zero;
    if (rest == half) return DfpRest::Half;
    return rest < half ? DfpRest::BelowHalf : DfpRest::AboveHalf;
  }
};

}  // namespace vek
