#pragma once

#include <limits>

namespace quernbrook::row_kernels {

inline constexpr double nan = std::numeric_limits<double>::quiet_NaN();

/// Comparisons that compilers turn into masks, which calls of std::isnan keep them from.
constexpr bool is_nan(double value) noexcept { return value != value; }

constexpr bool is_finite(double value) noexcept { return value - value == 0.0; }

}  // namespace quernbrook::row_kernels
