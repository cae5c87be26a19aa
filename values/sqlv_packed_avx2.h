// Kernels for processors with AVX2.
#pragma once

#include "values/sqlv_packed_kernels.h"

namespace vek {

// Null: this processor or this build has none.
const SqlvKernels* sqlvi_avx2Kernels() noexcept;

// The operations of SqlvKernels that move the decimal point.
std::size_t sqlvi_avx2Rescale(const SqlvColumn& source, const SqlvTargetColumn& target, std::size_t count) noexcept;
std::size_t sqlvi_avx2Text(const SqlvColumn& source, char decimalPoint, char* target, std::size_t targetStride,
                           std::size_t count) noexcept;

}  // namespace vek
