// What tests of packed decimals share: values digit by digit, memory that ends where a value ends, and cases that a
// script writes.
#pragma once

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "platform/support.h"
#include "veksys/values/packed_decimal.h"

namespace vek::valuestest {

using Packed = std::array<std::uint8_t, SQLV_PACKED_BYTES_MAX>;
__extension__ using Wide = unsigned __int128;

constexpr SqlvDescriptor descriptorOf(unsigned precision, unsigned scale) {
  return {static_cast<std::uint8_t>(precision), static_cast<std::uint8_t>(scale)};
}

inline void setNibble(std::uint8_t* bytes, std::size_t index, unsigned nibble) {
  const unsigned kept = index % 2 == 0 ? bytes[index / 2] & 0x0FU : bytes[index / 2] & 0xF0U;
  bytes[index / 2] = static_cast<std::uint8_t>(kept | (index % 2 == 0 ? nibble << 4U : nibble));
}

// Digits of a magnitude with a sign, one by one.
inline Packed packedOf(Wide magnitude, unsigned sign, SqlvDescriptor descriptor) {
  Packed bytes = {};
  std::size_t index = sqlvPackedBytes(descriptor) * 2 - 1;
  setNibble(bytes.data(), index, sign);
  for (; magnitude != 0 && index-- > 0; magnitude /= 10)
    setNibble(bytes.data(), index, static_cast<unsigned>(magnitude % 10));
  return bytes;
}

inline Wide tenTo(unsigned power) {
  Wide result = 1;
  for (; power > 0; --power) result *= 10;
  return result;
}

// A page between two that nobody may touch: what ends at its end, or begins at its start, cannot be left unseen.
class GuardedPage {
 public:
  GuardedPage() {
    pages_ = ::mmap(nullptr, 3 * kBytes, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    EXPECT_EQ(::mprotect(front(), kBytes, PROT_READ | PROT_WRITE), 0);
  }
  ~GuardedPage() { ::munmap(pages_, 3 * kBytes); }
  GuardedPage(const GuardedPage&) = delete;
  GuardedPage& operator=(const GuardedPage&) = delete;

  std::uint8_t* front() const { return static_cast<std::uint8_t*>(pages_) + kBytes; }
  // Room for so many bytes at one end or the other.
  std::uint8_t* place(std::size_t bytes, bool atEnd) const { return atEnd ? front() + kBytes - bytes : front(); }
  std::uint8_t* place(const std::vector<std::uint8_t>& bytes, bool atEnd) const {
    std::uint8_t* target = place(bytes.size(), atEnd);
    std::copy(bytes.begin(), bytes.end(), target);
    return target;
  }

 private:
  static constexpr std::size_t kBytes = 4096;
  void* pages_;
};

inline std::vector<std::uint8_t> bytesOfHex(const std::string& hex) {
  std::vector<std::uint8_t> bytes(hex.size() / 2);
  for (std::size_t i = 0; i < hex.size(); ++i)
    setNibble(bytes.data(), i, static_cast<unsigned>(std::stoul(hex.substr(i, 1), nullptr, 16)));
  return bytes;
}

inline std::string hexOf(const std::uint8_t* bytes, std::size_t count) {
  std::string hex;
  for (std::size_t i = 0; i < count; ++i)
    hex += {"0123456789ABCDEF"[bytes[i] >> 4U], "0123456789ABCDEF"[bytes[i] & 0xFU]};
  return hex;
}

// What a Python script of this folder prints for a seed, line by line. No line: it could not be run.
inline std::vector<std::string> linesOfScript(const std::string& name, const std::string& seed, const char* count) {
  std::FILE* const output = std::tmpfile();
  const std::string script = VEKSYS_TEST_SOURCE "/values/" + name;
  platformtest::inProcess([&] {
    ::dup2(::fileno(output), STDOUT_FILENO);
    ::execlp("python3", "python3", script.c_str(), seed.c_str(), count, nullptr);
    FAIL() << "there is no python3";
  });
  std::vector<std::string> lines;
  std::ifstream in("/dev/fd/" + std::to_string(::fileno(output)));
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  (void)std::fclose(output);
  return lines;
}

}  // namespace vek::valuestest
