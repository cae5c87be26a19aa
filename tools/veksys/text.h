// A growing buffer of text with formatters of its own.
//
// The views of a trace write hundreds of megabytes; every formatter here makes room once and then stores plain bytes.
#pragma once

#include <cstdint>
#include <cstring>
#include <memory>
#include <string_view>

namespace veksys {

class Text {
 public:
  const char* data() const noexcept { return data_.get(); }
  std::size_t size() const noexcept { return size_; }
  std::string_view view() const noexcept { return {data_.get(), size_}; }
  void clear() noexcept { size_ = 0; }
  void cutTo(std::size_t size) noexcept { size_ = size < size_ ? size : size_; }

  // Room for `bytes` more; the pointer holds until the next call that may grow the text. commit() takes what was used.
  char* room(std::size_t bytes) {
    if (capacity_ - size_ < bytes) [[unlikely]]
      grow(bytes);
    return data_.get() + size_;
  }
  void commit(std::size_t bytes) noexcept { size_ += bytes; }

  void put(char c) {
    *room(1) = c;
    ++size_;
  }
  void put(std::string_view text) {
    if (text.empty()) return;  // its bytes may be nowhere
    std::memcpy(room(text.size() + 1), text.data(), text.size());
    size_ += text.size();
  }
  void fill(char c, std::size_t count) {
    std::memset(room(count + 1), c, count);
    size_ += count;
  }

  void decimal(std::uint64_t value);
  void signedDecimal(std::int64_t value);
  void decimalRight(std::uint64_t value, unsigned width);   // blanks on the left
  void decimalZeros(std::uint64_t value, unsigned digits);  // zeros on the left, exactly so many digits
  void grouped(std::uint64_t value);                        // 1,234,567
  void hex(std::uint64_t value, unsigned digits);           // upper case, exactly so many digits
  void hexCode(std::uint32_t value) {                       // 0x8B0F0000
    put("0x");
    hex(value, 8);
  }
  void hexShort(std::uint64_t value);  // 0x1F, as many digits as it takes

  // Blanks until `width` characters stand behind `start`; none when they do already.
  void padTo(std::size_t start, std::size_t width) {
    if (size_ - start < width) fill(' ', width - (size_ - start));
  }

 private:
  void grow(std::size_t bytes);

  std::unique_ptr<char[]> data_;
  std::size_t size_ = 0;
  std::size_t capacity_ = 0;
};

// The length of the well-formed UTF-8 character of two or more bytes at the start of a text that is not empty; 0 when
// there is none or it is a control character.
std::size_t wideCharacter(std::string_view text) noexcept;

// Puts the printable characters of foreign text as they are (well-formed UTF-8 included) and all other bytes as \n, \t
// or \xNN, so that no content of a trace reaches the terminal as a control sequence. A backslash is doubled.
void putSafe(Text& text, std::string_view foreign);

}  // namespace veksys
