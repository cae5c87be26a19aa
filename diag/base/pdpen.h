// A pen: bounded text output into a buffer of the caller.
//
// Writes characters, padded fields, decimal and hex numbers; allocates nothing, takes no lock, calls nothing that a
// signal handler may not call. A pen never passes its buffer. The first append that does not fit whole is cut there,
// and everything after it is dropped, so that what stands in the buffer is always the beginning of the whole text;
// `finish` then puts a mark over its end that says so. A text that fits is never marked.
//
// Numbers and blanks are written where they are to stand, a block at once, and may leave traces in the room behind the
// pen; texts write no byte too many.
#pragma once

#include <bit>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace vek {

class PdPen {
 public:
  // Writes into `buffer`: at most bytes - 1 characters and, by `finish`, a terminator. `bytes` must not be 0.
  PdPen(char* buffer, std::size_t bytes) noexcept : begin_(buffer), next_(buffer), end_(buffer + bytes - 1) {}

  PdPen(const PdPen&) = delete;
  PdPen& operator=(const PdPen&) = delete;

  void text(std::string_view text) noexcept {
    if (!text.empty()) append(text.data(), text.size());  // an empty view may be null
  }
  void character(char c) noexcept { text({&c, 1}); }
  void newLine() noexcept { text("\r\n"); }

  // `count` times the same character.
  void fill(char c, std::size_t count) noexcept {
    if (count <= kBlock && room() >= kBlock) {
      char* const to = next_;
      next_ = to + count;
      std::memset(to, c, kBlock);  // of a known size: two instructions, no call
      return;
    }
    const std::size_t written = count <= room() ? count : room();
    std::memset(next_, c, written);
    next_ += written;
    if (written != count) stop();
  }

  // Blanks up to `width` characters behind `from`, a position that `written` answered earlier; none when there are as
  // many already. `from` = written(), a text, then padTo(from, 21) is "%-21s".
  void padTo(std::size_t from, std::size_t width) noexcept {
    const std::size_t length = written() - from;
    if (length < width) fill(' ', width - length);
  }
  void textLeft(std::string_view field, std::size_t width) noexcept {
    const std::size_t from = written();
    text(field);
    padTo(from, width);
  }

  void decimal(std::uint64_t value) noexcept {
    if (value < 10) return character(static_cast<char>('0' + value));
    manyDigits(value);
  }
  void decimalLeft(std::uint64_t value, std::size_t width) noexcept {
    const std::size_t from = written();
    decimal(value);
    padTo(from, width);
  }
  void signedDecimal(std::int64_t value) noexcept {
    if (value < 0) character('-');
    decimal(magnitude(value));
  }

  // At least `digits` digits (at most 19), zeros in front; "%0*u" and, with the sign in front of the zeros, "%.*d".
  void decimalZeros(std::uint64_t value, std::size_t digits) noexcept {
    for (std::uint64_t least = 10; digits > 1; --digits, least *= 10)
      if (value < least) character('0');
    decimal(value);
  }
  void signedDecimalZeros(std::int64_t value, std::size_t digits) noexcept {
    if (value < 0) character('-');
    decimalZeros(magnitude(value), digits);
  }

  // Upper-case hex, at least `digits` digits (at most 16), without "0x".
  void hex(std::uint64_t value, unsigned digits) noexcept {
    const auto needed = (static_cast<unsigned>(std::bit_width(value)) + 3) / 4;
    const unsigned length = needed > digits ? needed : digits;
    inPlace([value, length](char* to) noexcept {
      std::uint64_t rest = value;
      for (unsigned i = length; i > 0; --i, rest >>= 4) to[i - 1] = "0123456789ABCDEF"[rest & 0xF];
      return to + length;
    });
  }

  // For writers of text that take a buffer: `next` points to where they write, at most room() characters and a
  // terminator; `advance` takes over what they wrote. `whole` is false when they had to leave something out.
  char* next() noexcept { return next_; }
  void advance(std::size_t characters, bool whole) noexcept {
    const bool fits = characters <= room();
    next_ += fits ? characters : room();
    if (!whole || !fits) stop();
  }

  std::size_t room() const noexcept { return static_cast<std::size_t>(end_ - next_); }
  std::size_t written() const noexcept { return static_cast<std::size_t>(next_ - begin_); }

  // Whether something did not fit. A loop over much data may stop then.
  bool isCut() const noexcept { return isCut_; }

  // Says that the text goes on although it does not: what was left out did not fit elsewhere.
  void stop() noexcept {
    if (isCut_) return;
    isCut_ = true;
    full_ = end_;
    end_ = next_;
  }

  // Ends the text: a cut one gets `mark` (if any) as its last characters, over what stood there, without splitting a CR
  // LF or a character of several bytes; then comes the terminator. Returns the characters that stand in the buffer.
  std::size_t finish(std::string_view mark) noexcept {
    if (isCut_) putMark(mark);
    *next_ = '\0';
    return written();
  }

 private:
  static constexpr std::size_t kBlock = 32;
  static constexpr std::size_t kNumberMost = 20;

  static std::uint64_t magnitude(std::int64_t value) noexcept {
    const auto bits = static_cast<std::uint64_t>(value);
    return value < 0 ? 0 - bits : bits;
  }
  [[gnu::noinline]] void manyDigits(std::uint64_t value) noexcept {  // apart: long, and in use all over
    inPlace([value](char* to) noexcept { return std::to_chars(to, to + kNumberMost, value).ptr; });
  }
  // A number: where it is to stand, or aside where that has not room for the longest.
  template <class Write>
  void inPlace(Write write) noexcept {
    if (room() >= kNumberMost) {
      next_ = write(next_);
      return;
    }
    char aside[kNumberMost] = {};
    append(aside, static_cast<std::size_t>(write(aside) - aside));
  }
  void append(const char* bytes, std::size_t count) noexcept {
    if (count > room()) return cutAt(bytes);  // apart, so that a literal is copied without a call
    put(bytes, count);
  }
  [[gnu::noinline, gnu::cold]] void cutAt(const char* bytes) noexcept {
    put(bytes, room());
    stop();
  }
  void put(const char* bytes, std::size_t count) noexcept {
    char* const to = next_;
    next_ = to + count;
    std::memcpy(to, bytes, count);
  }
  void putMark(std::string_view mark) noexcept {
    end_ = full_;
    const auto capacity = static_cast<std::size_t>(end_ - begin_);
    if (mark.empty()) return;
    if (mark.size() > capacity) mark = mark.substr(0, capacity);
    if (room() < mark.size()) next_ = boundaryBefore(end_ - mark.size());
    put(mark.data(), mark.size());
  }
  // The last place at or before `place` that is neither inside a character nor between CR and LF.
  char* boundaryBefore(char* place) const noexcept {
    char* at = place;
    while (at > begin_ && place - at < 3 && (static_cast<unsigned char>(*at) & 0xC0U) == 0x80U) --at;
    if (at > begin_ && at[-1] == '\r') --at;
    return at;
  }

  char* begin_;
  char* next_;
  char* end_;  // where the terminator stands at the latest; moved to next_ once something was cut
  char* full_ = nullptr;
  bool isCut_ = false;
};

}  // namespace vek
