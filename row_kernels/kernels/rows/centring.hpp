#pragma once

#include <cstddef>

namespace quernbrook::row_kernels {

/// Writes the row less the mean of its numbers to `result`, measured from its first number, so that
/// equal numbers give exact zeros. `scratch` has room for `count` values. Returns how many of the
/// cells are numbers.
std::size_t demean(const double* row, double* result, double* scratch, std::size_t count) noexcept;

}  // namespace quernbrook::row_kernels
