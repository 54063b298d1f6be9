#include "signals/row_sums.hpp"

#include <algorithm>

#include "instruction_sets.hpp"
#include "rows/sums.hpp"

namespace quernbrook::row_kernels {
namespace {

QUERNBROOK_WIDEST_REGISTERS void add(const double* __restrict row, double* __restrict sums,
                                     std::size_t count) noexcept {
  for (std::size_t place = 0; place < count; ++place) sums[place] += row[place];
}

QUERNBROOK_WIDEST_REGISTERS void add_times(const double* __restrict row, double factor,
                                           double* __restrict sums, std::size_t count) noexcept {
  for (std::size_t place = 0; place < count; ++place) sums[place] += row[place] * factor;
}

}  // namespace

void sum_rows(const double* block, std::size_t rows, std::size_t columns, double* sums) noexcept {
  if (columns == 1) {
    sums[0] = pairwise_sum(block, rows);
    return;
  }
  std::fill_n(sums, columns, 0.0);
  for (std::size_t row = 0; row < rows; ++row) add(block + row * columns, sums, columns);
}

void sum_shares(const double* block, const double* shares, double total, std::size_t rows,
                std::size_t columns, double* sums, double* scratch) noexcept {
  if (columns == 1) {
    std::size_t taken = 0;
    for (std::size_t row = 0; row < rows; ++row) {
      if (shares[row] > 0.0) scratch[taken++] = block[row] * (shares[row] / total);
    }
    sums[0] = pairwise_sum(scratch, taken);
    return;
  }
  std::fill_n(sums, columns, 0.0);
  for (std::size_t row = 0; row < rows; ++row) {
    if (shares[row] > 0.0) add_times(block + row * columns, shares[row] / total, sums, columns);
  }
}

QUERNBROOK_WIDEST_REGISTERS void divide_row(double* row, double divisor,
                                            std::size_t count) noexcept {
  for (std::size_t place = 0; place < count; ++place) row[place] /= divisor;
}

}  // namespace quernbrook::row_kernels
