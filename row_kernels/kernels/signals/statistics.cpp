#include "signals/statistics.hpp"

#include <cmath>

#include "nan.hpp"
#include "signals/row_sums.hpp"

namespace quernbrook::row_kernels {
namespace {

/// The root of the mean of each column of `squares`.
void root_mean(const double* squares, std::size_t count, std::size_t columns,
               double* result) noexcept {
  sum_rows(squares, count, columns, result);
  for (std::size_t place = 0; place < columns; ++place) {
    result[place] = std::sqrt(result[place] / static_cast<double>(count));
  }
}

void divide_by_risk(double* means, const double* risks, std::size_t columns) noexcept {
  for (std::size_t place = 0; place < columns; ++place) {
    means[place] = risks[place] == 0.0 ? 0.0 : means[place] / risks[place];
  }
}

}  // namespace

void mean(const double* rows, std::size_t count, std::size_t columns, double* /*scratch*/,
          double* result) noexcept {
  sum_rows(rows, count, columns, result);
  divide_row(result, static_cast<double>(count), columns);
}

void deviation(const double* rows, std::size_t count, std::size_t columns, double* scratch,
               double* result) noexcept {
  const double* newest = rows + (count - 1) * columns;
  for (std::size_t row = 0; row < count; ++row) {
    for (std::size_t place = 0; place < columns; ++place) {
      scratch[row * columns + place] = rows[row * columns + place] - newest[place];
    }
  }
  mean(scratch, count, columns, nullptr, result);
  for (std::size_t row = 0; row < count; ++row) {
    for (std::size_t place = 0; place < columns; ++place) {
      double& value = scratch[row * columns + place];
      value -= result[place];
      value *= value;
    }
  }
  root_mean(scratch, count, columns, result);
}

void downside_deviation(const double* rows, std::size_t count, std::size_t columns, double* scratch,
                        double* result) noexcept {
  for (std::size_t cell = 0; cell < count * columns; ++cell) {
    const double loss = rows[cell] < 0.0 || is_nan(rows[cell]) ? rows[cell] : 0.0;
    scratch[cell] = loss * loss;
  }
  root_mean(scratch, count, columns, result);
}

void sharpe(const double* rows, std::size_t count, std::size_t columns, double* scratch,
            double* result) noexcept {
  double* risks = scratch + count * columns;
  deviation(rows, count, columns, scratch, risks);
  mean(rows, count, columns, nullptr, result);
  divide_by_risk(result, risks, columns);
}

void sortino(const double* rows, std::size_t count, std::size_t columns, double* scratch,
             double* result) noexcept {
  double* risks = scratch + count * columns;
  downside_deviation(rows, count, columns, scratch, risks);
  mean(rows, count, columns, nullptr, result);
  divide_by_risk(result, risks, columns);
}

}  // namespace quernbrook::row_kernels
