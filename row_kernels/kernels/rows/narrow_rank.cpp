#include "rows/narrow_rank.hpp"

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "instruction_sets.hpp"
#include "nan.hpp"

namespace quernbrook::row_kernels {
namespace {

// Spelt out, as compilers spill these counts.
constexpr std::size_t lanes = 8;
using Cells [[gnu::vector_size(64)]] = double;
using Places [[gnu::vector_size(64)]] = std::int64_t;

// Counts of so many cells stay in registers while all others are compared with them.
constexpr std::size_t strip = 2 * lanes;
constexpr std::size_t widest = narrow + strip;

template <bool or_equal>
inline void count_below(const double* row, std::size_t columns, std::int64_t* counts) noexcept {
  for (std::size_t first = 0; first < columns; first += strip) {
    Cells cells[2];
    Places below[2] = {};
    std::memcpy(cells, row + first, sizeof cells);
    for (std::size_t other = 0; other < columns; ++other) {
      const Cells value = Cells{} + row[other];
      // True is -1.
      below[0] -= or_equal ? value <= cells[0] : value < cells[0];
      below[1] -= or_equal ? value <= cells[1] : value < cells[1];
    }
    std::memcpy(counts + first, below, sizeof below);
  }
}

// Smaller integers are converted side by side.
inline double as_double(std::int64_t count) noexcept {
  return static_cast<double>(static_cast<std::int32_t>(count));
}

}  // namespace

QUERNBROOK_WIDEST_REGISTERS void rank_narrow(const double* row, double lone, double* result,
                                             std::size_t columns) noexcept {
  double cells[widest];
  std::copy_n(row, columns, cells);
  std::fill(cells + columns, cells + columns + strip, nan);
  std::int64_t numbers = 0;
  for (std::size_t column = 0; column < columns; ++column) numbers += is_nan(cells[column]) ? 0 : 1;

  std::int64_t below[widest];
  count_below<false>(cells, columns, below);
  std::int64_t sum = 0;
  for (std::size_t column = 0; column < columns; ++column) sum += below[column];
  const auto divisor = static_cast<double>(numbers - 1);
  if (sum == numbers * (numbers - 1) / 2) {
    for (std::size_t column = 0; column < columns; ++column) {
      const double rank = as_double(below[column]) / divisor;
      result[column] = is_nan(cells[column]) ? nan : rank;
    }
  } else {
    // Some are equal.
    std::int64_t below_or_equal[widest];
    count_below<true>(cells, columns, below_or_equal);
    for (std::size_t column = 0; column < columns; ++column) {
      const double place = as_double(below[column] + below_or_equal[column] - 1) / 2.0;
      result[column] = is_nan(cells[column]) ? nan : place / divisor;
    }
  }
  if (numbers == 1) {
    for (std::size_t column = 0; column < columns; ++column) {
      result[column] = is_nan(cells[column]) ? nan : lone;
    }
  }
}

}  // namespace quernbrook::row_kernels
