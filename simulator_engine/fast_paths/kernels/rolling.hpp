#pragma once

#include <cstddef>

namespace quernbrook::kernels {

enum class RollingStatistic { mean, standard_deviation, z_score };

/// Computes a statistic over the last `window` rows of every column, in extended precision, for
/// 1 <= window <= rows. A cell is NaN where the window is not full or holds a NaN. Window sums are
/// differences of running totals, so an infinity spoils its column to the end, with the NaN that
/// the processor makes of infinity less infinity. Steps are in doubles, `result` is C-contiguous
/// and must not overlap `data`.
void rolling(RollingStatistic statistic, const double* data, std::ptrdiff_t row_step,
             std::ptrdiff_t column_step, double* result, std::size_t rows, std::size_t columns,
             std::size_t window);

}  // namespace quernbrook::kernels
