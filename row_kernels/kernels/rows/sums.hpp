#pragma once

#include <cstddef>

namespace quernbrook::row_kernels {

/// The sum of `count` values in NumPy's order, to the last bit: eight sums side by side within
/// blocks of at most 128, and these added pairwise. Releases of NumPy differ for more than 8,192
/// values; here, pieces of that length are added one after the other.
double pairwise_sum(const double* values, std::size_t count) noexcept;

/// Writes the values of the cells that are not NaN to `target`, in order, and returns their number.
/// `cells` decides and `values` is taken; they may be the same. There is room for `count` values.
std::size_t take_numbers(const double* cells, const double* values, double* target,
                         std::size_t count) noexcept;

}  // namespace quernbrook::row_kernels
