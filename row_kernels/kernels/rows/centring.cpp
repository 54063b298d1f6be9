#include "rows/centring.hpp"

#include <algorithm>
#include <cmath>
#include <memory>

#include "instruction_sets.hpp"
#include "nan.hpp"
#include "rows/across_function.hpp"
#include "rows/rows.hpp"
#include "rows/sums.hpp"

namespace quernbrook::row_kernels {
namespace {

/// Returns how many of the cells are numbers.
QUERNBROOK_WIDEST_REGISTERS std::size_t subtract(const double* __restrict row, double subtrahend,
                                                 double* __restrict result,
                                                 std::size_t count) noexcept {
  std::size_t numbers = 0;
  for (std::size_t place = 0; place < count; ++place) {
    result[place] = row[place] - subtrahend;
    numbers += is_nan(row[place]) ? 0 : 1;
  }
  return numbers;
}

QUERNBROOK_WIDEST_REGISTERS void subtract_from(double* row, double subtrahend,
                                               std::size_t count) noexcept {
  for (std::size_t place = 0; place < count; ++place) row[place] -= subtrahend;
}

QUERNBROOK_WIDEST_REGISTERS void square(const double* __restrict values, double* __restrict squares,
                                        std::size_t count) noexcept {
  for (std::size_t place = 0; place < count; ++place)
    squares[place] = values[place] * values[place];
}

QUERNBROOK_WIDEST_REGISTERS void divide(double* row, double divisor, std::size_t count) noexcept {
  for (std::size_t place = 0; place < count; ++place) row[place] /= divisor;
}

class Demean {
 public:
  explicit Demean(std::size_t columns)
      : columns_(columns), scratch_(std::make_unique_for_overwrite<double[]>(columns)) {}

  void operator()(const double* row, double* result) noexcept {
    demean(row, result, scratch_.get(), columns_);
  }

 private:
  std::size_t columns_;
  std::unique_ptr<double[]> scratch_;
};

class ZScore {
 public:
  explicit ZScore(std::size_t columns)
      : columns_(columns), scratch_(std::make_unique_for_overwrite<double[]>(columns)) {}

  void operator()(const double* row, double* result) noexcept {
    const std::size_t numbers = demean(row, result, scratch_.get(), columns_);
    if (numbers == 0) return;
    square(result, scratch_.get(), columns_);
    if (numbers < columns_) take_numbers(row, scratch_.get(), scratch_.get(), columns_);
    const double variance = pairwise_sum(scratch_.get(), numbers) / static_cast<double>(numbers);
    const double deviation = std::sqrt(variance);
    if (deviation != 0.0) divide(result, deviation, columns_);
  }

 private:
  std::size_t columns_;
  std::unique_ptr<double[]> scratch_;
};

}  // namespace

std::size_t demean(const double* row, double* result, double* scratch, std::size_t count) noexcept {
  const double* first = std::find_if_not(row, row + count, is_nan);
  if (first == row + count) {
    std::copy_n(row, count, result);
    return 0;
  }
  const std::size_t numbers = subtract(row, *first, result, count);
  const double* differences = result;
  if (numbers < count) {
    take_numbers(row, result, scratch, count);
    differences = scratch;
  }
  subtract_from(result, pairwise_sum(differences, numbers) / static_cast<double>(numbers), count);
  return numbers;
}

std::unique_ptr<RowFunction> make_demean() { return make_across<Demean, 1>(); }
std::unique_ptr<RowFunction> make_z_score() { return make_across<ZScore, 1>(); }

}  // namespace quernbrook::row_kernels
