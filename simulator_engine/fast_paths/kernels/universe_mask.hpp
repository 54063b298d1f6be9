#pragma once

#include <cstddef>

namespace quernbrook::kernels {

/// Copies `count` doubles, with NaN where the universe equals zero or is NaN. Steps are in doubles.
/// `result` may be `data` itself.
void mask_universe(const double* data, std::ptrdiff_t data_step, const double* universe,
                   std::ptrdiff_t universe_step, double* result, std::size_t count) noexcept;

}  // namespace quernbrook::kernels
