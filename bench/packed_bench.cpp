// What packed decimals cost: single calls and columns, for DECIMAL(15,2) and DECIMAL(31,0), beside GnuCOBOL's runtime,
// a plain loop over the digits, and std::to_chars for the way from binary to digits.
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <random>
#include <vector>

#include "instance.h"
#include "measure.h"
#include "packed_peer.h"
#include "veksys/values/packed_decimal.h"

namespace {

using bench::Body;

constexpr std::size_t kValues = 1024;  // a power of two; they stay in the nearest cache

// A type with values of it, where they are rescaled to, and what the peer knows of both.
struct Subject {
  const char* name;
  SqlvDescriptor from;
  SqlvDescriptor to;
  unsigned digits;  // of the integers
  std::vector<std::uint8_t> packed = {};
  std::vector<std::uint8_t> rescaled = {};
  std::vector<char> text = {};
  std::vector<std::int64_t> integers = {};
  bench::PackedPeerColumn* peerFrom = nullptr;
  bench::PackedPeerColumn* peerTo = nullptr;
};

Subject g_subjects[] = {{"DECIMAL(15,2)", {15, 2}, {15, 4}, 11}, {"DECIMAL(31,0)", {31, 0}, {31, 4}, 18}};

std::uint64_t tenTo(unsigned power) {
  std::uint64_t result = 1;
  while (power-- > 0) result *= 10;
  return result;
}

void prepare(Subject& subject) {
  std::mt19937_64 random(20261121);
  const std::size_t bytes = sqlvPackedBytes(subject.from);
  subject.packed.resize(kValues * bytes);
  subject.rescaled.resize(kValues * sqlvPackedBytes(subject.to));
  subject.text.resize(kValues * (subject.from.precision + 2U));
  const std::uint64_t least = tenTo(subject.digits - 1);
  for (std::size_t i = 0; i < kValues; ++i) {
    const auto magnitude = static_cast<std::int64_t>(least + random() % (9 * least));
    subject.integers.push_back(random() % 2 == 0 ? magnitude : -magnitude);
    std::uint8_t* value = &subject.packed[i * bytes];
    if (sqlvbig2dec(subject.integers.back(), value, subject.from) != 0) std::puts("a value does not fit");
    for (unsigned digit = 0; digit < subject.from.scale; ++digit)  // digits behind the point as well
      value[bytes - 1 - (digit + 1) / 2] |= static_cast<std::uint8_t>(random() % 10 << (digit % 2 == 0 ? 4U : 0U));
  }
  subject.peerFrom =
      bench::packedPeerColumn(subject.from.precision, subject.from.scale, subject.packed.data(), kValues);
  subject.peerTo = bench::packedPeerColumn(subject.to.precision, subject.to.scale, subject.rescaled.data(), kValues);
}

// ---- plain loops over the digits --------------------------------------------------------------------------------

unsigned nibble(const std::uint8_t* packed, std::size_t index) {
  return index % 2 == 0 ? packed[index / 2] >> 4U : packed[index / 2] & 0xFU;
}

[[gnu::noinline]] std::int64_t plainRead(const std::uint8_t* packed, SqlvDescriptor type) {
  const std::size_t nibbles = sqlvPackedBytes(type) * 2 - 1;
  std::int64_t value = 0;
  for (std::size_t i = 0; i < nibbles - type.scale; ++i) value = value * 10 + nibble(packed, i);
  const unsigned sign = nibble(packed, nibbles);
  return sign == 0xD || sign == 0xB ? -value : value;
}

[[gnu::noinline]] bool plainCheck(const std::uint8_t* packed, SqlvDescriptor type) {
  const std::size_t nibbles = sqlvPackedBytes(type) * 2 - 1;
  unsigned any = 0;
  for (std::size_t i = 0; i < nibbles; ++i) {
    if (nibble(packed, i) > 9) return false;
    any |= nibble(packed, i);
  }
  const unsigned sign = nibble(packed, nibbles);
  return sign == 0xC || (sign == 0xD && any != 0);
}

[[gnu::noinline]] void plainWrite(std::int64_t value, std::uint8_t* packed, SqlvDescriptor type) {
  std::size_t index = sqlvPackedBytes(type) * 2 - 1;
  std::uint64_t rest = value < 0 ? 0 - static_cast<std::uint64_t>(value) : static_cast<std::uint64_t>(value);
  for (std::size_t i = 0; i < sqlvPackedBytes(type); ++i) packed[i] = 0;
  packed[index / 2] = value < 0 ? 0xD : 0xC;
  for (index -= type.scale; rest != 0; rest /= 10) {
    --index;
    packed[index / 2] |= static_cast<std::uint8_t>(rest % 10 << (index % 2 == 0 ? 4U : 0U));
  }
}

[[gnu::noinline]] void plainRescale(const std::uint8_t* from, SqlvDescriptor type, std::uint8_t* to,
                                    SqlvDescriptor target) {
  const std::size_t nibbles = sqlvPackedBytes(type) * 2 - 1;
  const std::size_t targetNibbles = sqlvPackedBytes(target) * 2 - 1;
  const std::size_t up = static_cast<std::size_t>(target.scale - type.scale);
  for (std::size_t i = 0; i < sqlvPackedBytes(target); ++i) to[i] = 0;
  for (std::size_t i = 1; i + up <= targetNibbles && i <= nibbles; ++i) {
    const std::size_t index = targetNibbles - up - i;
    to[index / 2] |= static_cast<std::uint8_t>(nibble(from, nibbles - i) << (index % 2 == 0 ? 4U : 0U));
  }
  to[targetNibbles / 2] |= static_cast<std::uint8_t>(nibble(from, nibbles));
}

// ---- what is measured: each is one call that is not inlined -----------------------------------------------------

template <std::size_t Index, class Operation>
inline void each(std::uint64_t count, Operation operation) {
  Subject& subject = g_subjects[Index];
  const std::size_t bytes = sqlvPackedBytes(subject.from);
  std::uint8_t* values = subject.packed.data();
  for (std::uint64_t i = 0; i < count; ++i) operation(subject, values + (i & (kValues - 1)) * bytes, i & (kValues - 1));
}

std::uint8_t* targetOf(Subject& subject, std::size_t index) {
  return &subject.rescaled[index * sqlvPackedBytes(subject.to)];
}

template <std::size_t Index>
void read(std::uint64_t count) {
  each<Index>(count, [](Subject& subject, std::uint8_t* value, std::size_t) {
    std::int64_t result = 0;
    sqlvpdc2big_trunc(value, subject.from, &result);
    bench::keep(result);
  });
}
template <std::size_t Index>
void readPeer(std::uint64_t count) {
  bench::packedPeerRead(*g_subjects[Index].peerFrom, count);
}
template <std::size_t Index>
void readPlain(std::uint64_t count) {
  each<Index>(count,
              [](Subject& subject, std::uint8_t* value, std::size_t) { bench::keep(plainRead(value, subject.from)); });
}

template <std::size_t Index>
void write(std::uint64_t count) {
  each<Index>(count, [](Subject& subject, std::uint8_t*, std::size_t index) {
    sqlvbig2dec(subject.integers[index], targetOf(subject, index), subject.from);
  });
}
[[gnu::noinline]] void toChars(std::int64_t value) {
  char text[24];
  bench::keep(std::to_chars(text, text + sizeof text, value));
  bench::keep(text);
}
template <std::size_t Index>
void writeToChars(std::uint64_t count) {
  each<Index>(count, [](Subject& subject, std::uint8_t*, std::size_t index) { toChars(subject.integers[index]); });
}
template <std::size_t Index>
void writePlain(std::uint64_t count) {
  each<Index>(count, [](Subject& subject, std::uint8_t*, std::size_t index) {
    plainWrite(subject.integers[index], targetOf(subject, index), subject.from);
  });
}

template <std::size_t Index>
void check(std::uint64_t count) {
  each<Index>(count, [](Subject& subject, std::uint8_t* value, std::size_t) {
    bench::keep(sqlv_check_packed_Internal(value, subject.from));
  });
}
template <std::size_t Index>
void checkPeer(std::uint64_t count) {
  bench::packedPeerCheck(*g_subjects[Index].peerFrom, count);
}
template <std::size_t Index>
void checkPlain(std::uint64_t count) {
  each<Index>(count,
              [](Subject& subject, std::uint8_t* value, std::size_t) { bench::keep(plainCheck(value, subject.from)); });
}

template <std::size_t Index>
void rescale(std::uint64_t count) {
  each<Index>(count, [](Subject& subject, std::uint8_t* value, std::size_t index) {
    sqlvpdc2dec_trunc(value, subject.from, targetOf(subject, index), subject.to);
  });
}
template <std::size_t Index>
void rescalePeer(std::uint64_t count) {
  bench::packedPeerRescale(*g_subjects[Index].peerFrom, *g_subjects[Index].peerTo, count);
}
template <std::size_t Index>
void rescalePlain(std::uint64_t count) {
  each<Index>(count, [](Subject& subject, std::uint8_t* value, std::size_t index) {
    plainRescale(value, subject.from, targetOf(subject, index), subject.to);
  });
}

template <std::size_t Index>
void text(std::uint64_t count) {
  each<Index>(count, [](Subject& subject, std::uint8_t* value, std::size_t index) {
    const SqlvNumericValue source = {subject.from, value};
    const SqlvCharacterValue target = {&subject.text[index * (subject.from.precision + 2U)]};
    sqlv_num_2_chr_legacy(0, &source, nullptr, &target);
  });
}

// Whole columns; a turn counts values.
template <std::size_t Index, class Column>
void columns(std::uint64_t count, Column column) {
  Subject& subject = g_subjects[Index];
  std::size_t done = 0;
  for (std::uint64_t i = 0; i < count; i += kValues) {
    if (column(subject, &done) != 0) std::puts("a value fails");
    bench::keep(done);
  }
}

template <std::size_t Index>
void checkColumn(std::uint64_t count) {
  columns<Index>(count, [](Subject& subject, std::size_t* done) {
    return sqlv_check_packed_batch(subject.packed.data(), sqlvPackedBytes(subject.from), subject.from, kValues, done);
  });
}
template <std::size_t Index>
void readColumn(std::uint64_t count) {
  static std::vector<std::int64_t> target(kValues);
  columns<Index>(count, [](Subject& subject, std::size_t* done) {
    return sqlvpdc2big_trunc_batch(subject.packed.data(), sqlvPackedBytes(subject.from), subject.from, target.data(),
                                   kValues, done);
  });
}
template <std::size_t Index>
void writeColumn(std::uint64_t count) {
  columns<Index>(count, [](Subject& subject, std::size_t* done) {
    return sqlvbig2dec_batch(subject.integers.data(), subject.rescaled.data(), sqlvPackedBytes(subject.from),
                             subject.from, kValues, done);
  });
}
template <std::size_t Index>
void rescaleColumn(std::uint64_t count) {
  columns<Index>(count, [](Subject& subject, std::size_t* done) {
    return sqlvpdc2dec_trunc_batch(subject.packed.data(), sqlvPackedBytes(subject.from), subject.from,
                                   subject.rescaled.data(), sqlvPackedBytes(subject.to), subject.to, kValues, done);
  });
}
template <std::size_t Index>
void textColumn(std::uint64_t count) {
  columns<Index>(count, [](Subject& subject, std::size_t* done) {
    return sqlv_num_2_chr_batch(subject.packed.data(), sqlvPackedBytes(subject.from), subject.from, nullptr,
                                subject.text.data(), subject.from.precision + 2U, kValues, done);
  });
}

// ---- the table --------------------------------------------------------------------------------------------------

struct Comparison {
  const char* what;
  std::size_t ours;
  std::size_t peer;
  double bar;
  bool outside;  // the peer is not part of every build
};

enum Position {
  kRead,
  kReadPeer,
  kReadPlain,
  kWrite,
  kWriteToChars,
  kWritePlain,
  kCheck,
  kCheckPeer,
  kCheckPlain,
  kRescale,
  kRescalePeer,
  kRescalePlain,
  kText,
  kCheckColumn,
  kReadColumn,
  kWriteColumn,
  kRescaleColumn,
  kTextColumn,
};

constexpr Comparison kComparisons[] = {
    {"read; GnuCOBOL", kRead, kReadPeer, 2, true},
    {"read; plain loop", kRead, kReadPlain, 0, false},
    {"write; std::to_chars", kWrite, kWriteToChars, 1, false},
    {"write; plain loop", kWrite, kWritePlain, 0, false},
    {"validate; GnuCOBOL", kCheck, kCheckPeer, 3, true},
    {"validate; plain loop", kCheck, kCheckPlain, 0, false},
    {"rescale; GnuCOBOL", kRescale, kRescalePeer, 10, true},
    {"rescale; plain loop", kRescale, kRescalePlain, 0, false},
    {"column, validate; single call", kCheckColumn, kCheck, 1.5, false},
    {"column, read; single call", kReadColumn, kRead, 1.5, false},
    {"column, write; single call", kWriteColumn, kWrite, 1.5, false},
    {"column, rescale; single call", kRescaleColumn, kRescale, 1.5, false},
    {"column, to text; single call", kTextColumn, kText, 1.5, false},
};

template <std::size_t Index>
bool measure(bool peer, unsigned runs) {
  prepare(g_subjects[Index]);
  constexpr Body kBodies[] = {read<Index>,          readPeer<Index>,    readPlain<Index>,   write<Index>,
                              writeToChars<Index>,  writePlain<Index>,  check<Index>,       checkPeer<Index>,
                              checkPlain<Index>,    rescale<Index>,     rescalePeer<Index>, rescalePlain<Index>,
                              text<Index>,          checkColumn<Index>, readColumn<Index>,  writeColumn<Index>,
                              rescaleColumn<Index>, textColumn<Index>};
  const auto samples = bench::measureInTurn(kBodies, runs);
  bench::Table table;
  table.title(g_subjects[Index].name);
  for (const Comparison& comparison : kComparisons)
    if (peer || !comparison.outside)
      table.row({.what = comparison.what,
                 .unit = "ns",
                 .ours = samples[comparison.ours],
                 .peer = samples[comparison.peer],
                 .ratio = bench::ratios(samples[comparison.peer], samples[comparison.ours]),
                 .bar = comparison.bar});
  return table.passed();
}

}  // namespace

int main(int count, char** arguments) {
  const unsigned runs = bench::runsFromArguments(count, arguments);
  if (runs == 0) return 2;
  const bench::Instance instance;  // text is traced: measured where tracing is there and off
  const bool peer = bench::packedPeerStart();
  if (!peer) std::puts("GnuCOBOL's runtime was not there when this was built: its rows are left out.");
  const bool passed = measure<0>(peer, runs);
  return measure<1>(peer, runs) && passed ? 0 : 1;
}
