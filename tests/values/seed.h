// Where random tests of this folder get their numbers from.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <random>
#include <string>

namespace vek::valuestest {

// What random numbers begin with: VEK_TEST_SEED where that is set, else another number every time. As long as it lives,
// failures tell it.
class Seed {
 public:
  std::uint32_t number() const { return number_; }

 private:
  static std::uint32_t chosen() {
    const char* const given = std::getenv("VEK_TEST_SEED");
    return given != nullptr ? static_cast<std::uint32_t>(std::stoul(given)) : std::random_device{}();
  }

  const std::uint32_t number_ = chosen();
  const ::testing::ScopedTrace trace_{__FILE__, __LINE__, "VEK_TEST_SEED=" + std::to_string(number_)};
};

}  // namespace vek::valuestest
