// Durations counted in buckets whose width grows with them, after Gil Tene's HdrHistogram.
//
// A duration below 64 has a bucket of its own; above, each power of two has 32 equal buckets. A quantile is told as the
// middle of its bucket, at most 1/64 (1.6 %) off. The size is fixed, however many durations are counted.
#pragma once

#include <array>
#include <bit>
#include <cmath>
#include <cstdint>

namespace veksys {

class Histogram {
 public:
  void add(std::uint64_t value) noexcept {
    ++counts_[bucketOf(value)];
    ++total_;
  }

  // The least value that at least `share` (0 to 1) of those counted do not exceed; 0 when nothing was counted.
  std::uint64_t quantile(double share) const noexcept {
    if (total_ == 0) return 0;
    const auto wanted = static_cast<std::uint64_t>(std::ceil(share * static_cast<double>(total_)));
    std::uint64_t seen = counts_[0];
    std::uint32_t bucket = 0;
    while (bucket + 1 < kBuckets && seen < wanted) seen += counts_[++bucket];
    return middleOf(bucket);
  }

 private:
  static constexpr unsigned kExact = 64;
  static constexpr unsigned kPerPower = 32;
  static constexpr unsigned kBuckets = kExact + (64 - 6) * kPerPower;

  static std::uint32_t bucketOf(std::uint64_t value) noexcept {
    if (value < kExact) return static_cast<std::uint32_t>(value);
    const auto power = static_cast<unsigned>(std::bit_width(value)) - 1;  // 6 and up
    const auto within = static_cast<std::uint32_t>(value >> (power - 5)) & (kPerPower - 1);
    return kExact + (power - 6) * kPerPower + within;
  }

  static std::uint64_t middleOf(std::uint32_t bucket) noexcept {
    if (bucket < kExact) return bucket;
    const unsigned power = (bucket - kExact) / kPerPower + 6;
    const std::uint64_t within = (bucket - kExact) % kPerPower;
    const std::uint64_t width = 1ULL << (power - 5);
    return (1ULL << power) + within * width + width / 2;
  }

  std::array<std::uint32_t, kBuckets> counts_ = {};
  std::uint64_t total_ = 0;
};

}  // namespace veksys
