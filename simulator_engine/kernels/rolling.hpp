#pragma once

#include "kernels/matrix_view.hpp"
#include "kernels/pause.hpp"

namespace quernbrook::kernels {

enum class RollingStatistic { mean, standard_deviation, z_score };

/// Computes a statistic over the last `window` rows of every column, in extended precision, for
/// 1 <= window <= rows. A cell is NaN where the window is not full or holds a NaN. Window sums are
/// differences of running totals, so an infinity spoils its column to the end, with the NaN that
/// the processor makes of infinity less infinity. `result` is C-contiguous and must not overlap
/// `data`. `pause` is called between some rows.
void rolling(RollingStatistic statistic, const MatrixView& data, std::size_t window, double* result,
             const Pause& pause);

}  // namespace quernbrook::kernels
