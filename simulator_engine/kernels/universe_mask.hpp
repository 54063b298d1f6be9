#pragma once

#include "kernels/matrix_view.hpp"

namespace quernbrook::kernels {

/// Copies a row, with NaN where the universe equals zero or is NaN. `result` may be where the data
/// lie, if that is contiguous.
void mask_universe(const RowView& data, const RowView& universe, double* result) noexcept;

}  // namespace quernbrook::kernels
