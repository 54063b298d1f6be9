#pragma once

#include "kernels/matrix_view.hpp"
#include "kernels/pause.hpp"

namespace quernbrook::kernels {

/// Ranks every row of a matrix from 0.0 (smallest) to 1.0 (largest) by place / (count - 1), where
/// count is the number of cells that are not NaN; a lone valid cell ranks 0.5, NaN cells stay NaN.
/// Cells whose universe equals zero or is NaN count as NaN; `universe` may have null cells.
/// `result` is C-contiguous and must not overlap the inputs. `pause` is called between some rows.
///
/// Returns false at the first row in which two finite values are equal; `result` is then
/// unspecified. Equal infinities take places in column order, and positive infinities share theirs
/// with the NaN cells, so that such a rank may exceed 1.0.
bool rank_rows(const MatrixView& data, const MatrixView& universe, double* result,
               const Pause& pause);

}  // namespace quernbrook::kernels
