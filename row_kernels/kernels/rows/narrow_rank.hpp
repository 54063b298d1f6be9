#pragma once

#include <cstddef>

namespace quernbrook::row_kernels {

/// Up to this many columns, comparing each cell with each other is faster than sorting.
inline constexpr std::size_t narrow = 64;

/// Ranks a row of at most `narrow` cells as `make_rank` tells.
void rank_narrow(const double* row, double lone, double* result, std::size_t columns) noexcept;

}  // namespace quernbrook::row_kernels
