// The message catalogue: a GNU message object (little-endian) whose keys are "SQL0902N" for errors and "SQL0100W" for
// warnings.
//
// The file is written by others, so nothing in it is trusted: opening checks every offset, every length, every
// terminator and the order of the keys once, after which look-ups need no checks.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "veksys/types.h"

namespace vek {

inline constexpr std::size_t SQLMSG_FILE_BYTES_MOST = std::size_t{4} * 1024 * 1024;

class MessageObject {
 public:
  // False when the bytes are no valid message object; the object is empty then. The bytes must outlive it.
  bool open(std::span<const char> bytes) noexcept;

  // The text of a key, empty when there is none.
  std::string_view find(std::string_view key) const noexcept;

  std::uint32_t count() const noexcept { return count_; }

 private:
  std::uint32_t word(std::size_t offset) const noexcept;
  std::string_view stringAt(std::uint32_t table, std::uint32_t index) const noexcept;
  bool isTable(std::uint32_t table) const noexcept;
  bool isString(std::uint32_t table, std::uint32_t index) const noexcept;
  bool isAscending(std::uint32_t index) const noexcept;
  bool isValid() const noexcept;

  std::span<const char> bytes_;
  std::uint32_t count_ = 0;
  std::uint32_t keys_ = 0;
  std::uint32_t texts_ = 0;
};

// The message of an SQL code from the process's catalogue, empty when there is none.
std::string_view sqlzi_messageOfSqlcode(std::int32_t sqlcode) noexcept;

// The message with the number of a return code, its sign apart: that of an error for a negative code, when there is
// one, and the other way round. Empty when there is none, and for the message that says a message is missing.
std::string_view sqlzi_messageOfZrc(SqlzZrc zrc) noexcept;

// Forgets the process's catalogue, so that the next use reads it anew. Only while no other thread uses messages.
void sqlzi_forgetMessages() noexcept;

}  // namespace vek
