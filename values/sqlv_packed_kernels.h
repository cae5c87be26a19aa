// Kernels: operations on whole blocks of packed values with the widest instructions that the processor has.
#pragma once

#include "values/sqlv_packed.h"

namespace vek {

// Packed values of one descriptor, `stride` bytes apart.
template <class Byte>
struct SqlvColumnOf {
  Byte* values;
  std::size_t stride;
  SqlvDescriptor descriptor;
  std::size_t bytes;  // of a value

  SqlvColumnOf(Byte* values_, std::size_t stride_, SqlvDescriptor descriptor_) noexcept
      : values(values_), stride(stride_), descriptor(descriptor_), bytes(sqlvPackedBytes(descriptor_)) {}

  Byte* at(std::size_t index) const noexcept { return values + index * stride; }
  SqlvColumnOf from(std::size_t index) const noexcept { return {at(index), stride, descriptor}; }
};

using SqlvColumn = SqlvColumnOf<const std::uint8_t>;
using SqlvTargetColumn = SqlvColumnOf<std::uint8_t>;

inline constexpr std::size_t kSqlvKernelBlock = 4;  // values that a kernel takes at a time

// Each operation does whole blocks from the front and answers how many values it has done. It stops before a block in
// which a value fails or is of a kind that it leaves to others. Descriptors are ones that conversions take. Digits are
// cut. Null: there is no kernel for it.
struct SqlvKernels {
  std::size_t (*check)(const SqlvColumn& column, std::size_t count) noexcept;
  std::size_t (*toBig)(const SqlvColumn& column, std::int64_t* target, std::size_t count) noexcept;
  std::size_t (*fromBig)(const std::int64_t* values, const SqlvTargetColumn& column, std::size_t count) noexcept;
  std::size_t (*rescale)(const SqlvColumn& source, const SqlvTargetColumn& target, std::size_t count) noexcept;
  std::size_t (*text)(const SqlvColumn& source, char decimalPoint, char* target, std::size_t targetStride,
                      std::size_t count) noexcept;
};

// Those of this processor, chosen at the first call.
const SqlvKernels& sqlvi_kernels() noexcept;

// Whether the process uses kernels; it does until told otherwise. For tests, which compare both ways.
void sqlvi_useKernels(bool use) noexcept;

}  // namespace vek
