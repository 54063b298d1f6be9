#pragma once

#include <cstddef>

namespace quernbrook::row_kernels {

/// Writes a statistic of each column of `rows`, a C-ordered block, to `result`. `scratch` has room
/// for a block and a row.
using Statistic = void (*)(const double* rows, std::size_t count, std::size_t columns,
                           double* scratch, double* result);

void mean(const double* rows, std::size_t count, std::size_t columns, double* scratch,
          double* result) noexcept;
/// The population standard deviation, measured from the newest row first.
void deviation(const double* rows, std::size_t count, std::size_t columns, double* scratch,
               double* result) noexcept;
/// The root mean square of the losses.
void downside_deviation(const double* rows, std::size_t count, std::size_t columns, double* scratch,
                        double* result) noexcept;
/// The mean over one of these; 0 where that is 0, for without risk there is nothing to measure.
void sharpe(const double* rows, std::size_t count, std::size_t columns, double* scratch,
            double* result) noexcept;
void sortino(const double* rows, std::size_t count, std::size_t columns, double* scratch,
             double* result) noexcept;

}  // namespace quernbrook::row_kernels
