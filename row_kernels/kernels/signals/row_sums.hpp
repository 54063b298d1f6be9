#pragma once

#include <cstddef>

namespace quernbrook::row_kernels {

/// Writes the sum of each column of a C-ordered block to `sums`, in NumPy's order: row after row
/// onto zero, or pairwise where there is but one column.
void sum_rows(const double* block, std::size_t rows, std::size_t columns, double* sums) noexcept;

/// The same of the rows whose share is positive, each times its share of `total`. `scratch` has
/// room for `rows` values.
void sum_shares(const double* block, const double* shares, double total, std::size_t rows,
                std::size_t columns, double* sums, double* scratch) noexcept;

void divide_row(double* row, double divisor, std::size_t count) noexcept;

}  // namespace quernbrook::row_kernels
