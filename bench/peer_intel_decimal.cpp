#include "peer_intel_decimal.h"

#if defined(VEKSYS_INTEL_DECIMAL)

namespace {

using Word = std::uint64_t;
struct alignas(16) Pair {
  Word low;
  Word high;
};

}  // namespace

// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the names of that library
extern "C" {
#define INTEL_BINARY(name)                                       \
  Word __bid64_##name(Word, Word, unsigned rounding, unsigned*); \
  Pair __bid128_##name(Pair, Pair, unsigned rounding, unsigned*);
INTEL_BINARY(add)
INTEL_BINARY(sub)
INTEL_BINARY(mul)
INTEL_BINARY(div)
INTEL_BINARY(quantize)
#undef INTEL_BINARY
Word __bid64_round_integral_exact(Word, unsigned rounding, unsigned*);
Pair __bid128_round_integral_exact(Pair, unsigned rounding, unsigned*);
Word __bid_dpd_to_bid64(Word);
Pair __bid_dpd_to_bid128(Pair);
Word __bid_to_dpd64(Word);
Pair __bid_to_dpd128(Pair);
Pair __bid128_from_string(char*, unsigned rounding, unsigned*);
void __bid128_to_string(char*, Pair, unsigned*);
Word __bid128_to_bid64(Pair, unsigned rounding, unsigned*);
Pair __bid64_to_bid128(Word, unsigned*);
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)

namespace peer {
namespace {

Word in(IntelDecimal value, Word /*width*/) { return value.low; }
Pair in(IntelDecimal value, Pair /*width*/) { return {value.low, value.high}; }
IntelDecimal out(Word value) { return {value, 0}; }
IntelDecimal out(Pair value) { return {value.low, value.high}; }

template <class Value, Value (*Operation)(Value, Value, unsigned, unsigned*)>
IntelDecimal binary(IntelDecimal left, IntelDecimal right, unsigned rounding, unsigned* flags) {
  return out(Operation(in(left, Value{}), in(right, Value{}), rounding, flags));
}

template <class Value, Value (*Operation)(Value, unsigned, unsigned*)>
IntelDecimal unary(IntelDecimal value, unsigned rounding, unsigned* flags) {
  return out(Operation(in(value, Value{}), rounding, flags));
}

template <class Value, Value (*Operation)(Value)>
IntelDecimal plain(IntelDecimal value) {
  return out(Operation(in(value, Value{})));
}

constexpr IntelWidth k64 = {binary<Word, __bid64_add>,       binary<Word, __bid64_sub>,
                            binary<Word, __bid64_mul>,       binary<Word, __bid64_div>,
                            binary<Word, __bid64_quantize>,  unary<Word, __bid64_round_integral_exact>,
                            plain<Word, __bid_dpd_to_bid64>, plain<Word, __bid_to_dpd64>};
constexpr IntelWidth k128 = {binary<Pair, __bid128_add>,       binary<Pair, __bid128_sub>,
                             binary<Pair, __bid128_mul>,       binary<Pair, __bid128_div>,
                             binary<Pair, __bid128_quantize>,  unary<Pair, __bid128_round_integral_exact>,
                             plain<Pair, __bid_dpd_to_bid128>, plain<Pair, __bid_to_dpd128>};

}  // namespace

const IntelWidth* intelDecimal64() { return &k64; }
const IntelWidth* intelDecimal128() { return &k128; }
IntelDecimal intelRead(const char* text, unsigned* flags) {
  return out(__bid128_from_string(const_cast<char*>(text), kIntelNearest, flags));  // it does not write
}
void intelWrite(char* text, IntelDecimal value, unsigned* flags) { __bid128_to_string(text, in(value, Pair{}), flags); }
IntelDecimal intelNarrow(IntelDecimal value, unsigned rounding, unsigned* flags) {
  return out(__bid128_to_bid64(in(value, Pair{}), rounding, flags));
}
IntelDecimal intelWiden(IntelDecimal value, unsigned* flags) { return out(__bid64_to_bid128(value.low, flags)); }

}  // namespace peer

#else

namespace peer {

const IntelWidth* intelDecimal64() { return nullptr; }
const IntelWidth* intelDecimal128() { return nullptr; }
IntelDecimal intelRead(const char* /*text*/, unsigned* /*flags*/) { return {}; }
void intelWrite(char* /*text*/, IntelDecimal /*value*/, unsigned* /*flags*/) {}
IntelDecimal intelNarrow(IntelDecimal /*value*/, unsigned /*rounding*/, unsigned* /*flags*/) { return {}; }
IntelDecimal intelWiden(IntelDecimal /*value*/, unsigned* /*flags*/) { return {}; }

}  // namespace peer

#endif
