#include "fast_paths/kernels/column_mean.hpp"

#include <algorithm>
#include <bit>
#include <cfenv>
#include <cmath>
#include <cstdint>

namespace quernbrook::kernels {
namespace {

constexpr std::uint64_t canonical_nan = 0x7ff8000000000000;

bool any_nan(const double* values, std::size_t count) noexcept {
  return std::any_of(values, values + count, [](double value) { return std::isnan(value); });
}

bool any_odd_nan(const double* values, std::size_t count) noexcept {
  return std::any_of(values, values + count, [](double value) {
    return std::isnan(value) && std::bit_cast<std::uint64_t>(value) != canonical_nan;
  });
}

}  // namespace

bool column_mean(const double* block, std::size_t rows, std::size_t columns,
                 double* result) noexcept {
  constexpr std::size_t tile = 1024;  // of sums, which stay in the first cache
  constexpr int exceptions = FE_OVERFLOW | FE_INVALID | FE_UNDERFLOW;
  std::feclearexcept(exceptions);
  const auto divisor = static_cast<double>(rows);
  for (std::size_t first = 0; first < columns; first += tile) {
    const std::size_t width = std::min(tile, columns - first);
    double* sums = result + first;
    std::fill_n(sums, width, 0.0);
    for (std::size_t row = 0; row < rows; ++row) {
      const double* values = block + row * columns + first;
      for (std::size_t column = 0; column < width; ++column) sums[column] += values[column];
    }
    for (std::size_t column = 0; column < width; ++column) sums[column] /= divisor;
  }
  if (std::fetestexcept(exceptions) != 0) return false;
  return !any_nan(result, columns) || !any_odd_nan(block, rows * columns);
}

}  // namespace quernbrook::kernels
