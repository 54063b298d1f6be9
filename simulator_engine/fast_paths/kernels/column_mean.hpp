#pragma once

#include <cstddef>

namespace quernbrook::kernels {

/// The mean of every column of a C-ordered (rows, columns) block, with at least one row and two
/// columns: the rows are added in their order to zero and the sums divided by their number.
///
/// Returns false where the bits or the floating-point warnings would depend on how the additions
/// are carried out: after an overflow, an invalid operation or an underflow, and where NaNs of
/// different payloads meet. The result is not valid then.
bool column_mean(const double* block, std::size_t rows, std::size_t columns,
                 double* result) noexcept;

}  // namespace quernbrook::kernels
