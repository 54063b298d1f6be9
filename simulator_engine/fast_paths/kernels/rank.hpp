#pragma once

#include <cstddef>

namespace quernbrook::kernels {

/// Ranks every row of a matrix from 0.0 (smallest) to 1.0 (largest) by place / (count - 1), where
/// count is the number of cells that are not NaN; a lone valid cell ranks 0.5, NaN cells stay NaN.
/// Cells whose universe equals zero or is NaN count as NaN; `universe` may be null. Steps are in
/// doubles, `result` is C-contiguous and must not overlap the inputs.
///
/// Returns false at the first row in which two finite values are equal; `result` is then
/// unspecified. Equal infinities take places in column order, and positive infinities share theirs
/// with the NaN cells, so that such a rank may exceed 1.0.
bool rank_rows(const double* data, std::ptrdiff_t row_step, std::ptrdiff_t column_step,
               const double* universe, std::ptrdiff_t universe_row_step,
               std::ptrdiff_t universe_column_step, double* result, std::size_t rows,
               std::size_t columns);

}  // namespace quernbrook::kernels
