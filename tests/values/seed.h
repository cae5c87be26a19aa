// Where random tests of this folder get their numbers from.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <random>
#include <string>

namespace vek::valuestest {

// Random numbers that begin with VEK_TEST_SEED where that is set, else with another number every time. As long as the
// object lives, failures tell it.
class Random : public std::mt19937_64 {
 public:
  Random() { seed(std::stoul(begin_)); }
  const std::string& begin() const { return begin_; }

 private:
  const char* const given_ = std::getenv("VEK_TEST_SEED");
  const std::string begin_ = given_ != nullptr ? given_ : std::to_string(std::random_device{}());
  const ::testing::ScopedTrace trace_{__FILE__, __LINE__, "VEK_TEST_SEED=" + begin_};
};

}  // namespace vek::valuestest
