#include "kernels/column_mean.hpp"

#include <algorithm>
#include <bit>
#include <cfenv>
#include <cmath>
#include <cstdint>

namespace quernbrook::kernels {
namespace {

constexpr std::uint64_t canonical_nan = 0x7ff8000000000000;
constexpr int exceptions = FE_OVERFLOW | FE_INVALID | FE_UNDERFLOW;

bool any_nan(const double* values, std::size_t count) noexcept {
  return std::any_of(values, values + count, [](double value) { return std::isnan(value); });
}

bool any_odd_nan(const double* values, std::size_t count) noexcept {
  return std::any_of(values, values + count, [](double value) {
    return std::isnan(value) && std::bit_cast<std::uint64_t>(value) != canonical_nan;
  });
}

/// Adds a strip of columns, whose sums stay in registers meanwhile.
template <std::size_t width>
void add_strip(const double* rows, std::size_t count, std::size_t columns, double* sums) noexcept {
  double strip[width];
  std::copy_n(sums, width, strip);
  for (std::size_t row = 0; row < count; ++row) {
    for (std::size_t place = 0; place < width; ++place) strip[place] += rows[place];
    rows += columns;
  }
  std::copy_n(strip, width, sums);
}

/// Adds the rows to the sums, some at a time so that the first cache holds a strip of them.
void add_rows(const double* rows, std::size_t count, std::size_t columns, double* sums) noexcept {
  constexpr std::size_t rows_at_once = 16;
  constexpr std::size_t width = 16;
  for (std::size_t done = 0; done < count; done += rows_at_once) {
    const double* block = rows + done * columns;
    const std::size_t height = std::min(rows_at_once, count - done);
    std::size_t column = 0;
    for (; column + width <= columns; column += width) {
      add_strip<width>(block + column, height, columns, sums + column);
    }
    for (; column < columns; ++column) add_strip<1>(block + column, height, columns, sums + column);
  }
}

}  // namespace

bool ColumnMean::mean(const MatrixView& block, double* result) {
  const auto rows = static_cast<std::size_t>(block.rows);
  const auto columns = static_cast<std::size_t>(block.columns);
  const auto divisor = static_cast<double>(rows);
  sums_.assign(columns, 0.0);
  std::feclearexcept(exceptions);
  add_rows(block.cells, rows, columns, sums_.data());
  for (std::size_t column = 0; column < columns; ++column) result[column] = sums_[column] / divisor;
  if (std::fetestexcept(exceptions) != 0) return false;
  return !any_nan(result, columns) || !any_odd_nan(block.cells, rows * columns);
}

}  // namespace quernbrook::kernels
