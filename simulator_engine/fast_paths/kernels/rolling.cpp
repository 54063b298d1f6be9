#include "fast_paths/kernels/rolling.hpp"

#include <cmath>
#include <limits>

namespace quernbrook::kernels {
namespace {

struct Totals {
  // Negative zero is the one start that leaves the first value's own sign alone.
  long double sum = -0.0L;
  long double square_sum = -0.0L;

  void add(double value) {
    const long double safe = std::isnan(value) ? 0.0L : static_cast<long double>(value);
    sum += safe;
    square_sum += safe * safe;
  }
};

}  // namespace

void rolling(RollingStatistic statistic, const double* data, std::ptrdiff_t row_step,
             std::ptrdiff_t column_step, double* result, std::size_t rows, std::size_t columns,
             std::size_t window) {
  constexpr double nan = std::numeric_limits<double>::quiet_NaN();
  const auto divisor = static_cast<long double>(window);
  for (std::size_t column = 0; column < columns; ++column) {
    const double* leading = data + static_cast<std::ptrdiff_t>(column) * column_step;
    const double* lagging = leading;
    double* cell = result + column;
    Totals head;
    Totals tail;
    std::size_t clean_rows = 0;
    for (std::size_t row = 0; row < rows; ++row) {
      const double value = *leading;
      leading += row_step;
      head.add(value);
      clean_rows = std::isnan(value) ? 0 : clean_rows + 1;
      if (row >= window) {
        tail.add(*lagging);
        lagging += row_step;
      }
      long double sum = head.sum;
      long double square_sum = head.square_sum;
      if (row >= window) {
        sum -= tail.sum;
        square_sum -= tail.square_sum;
      }
      *cell = nan;
      if (clean_rows >= window) {
        const long double mean = sum / divisor;
        if (statistic == RollingStatistic::mean) {
          *cell = static_cast<double>(mean);
        } else {
          const long double difference = square_sum / divisor - mean * mean;
          const long double variance = 0.0L >= difference ? 0.0L : difference;
          const long double deviation = std::sqrt(variance);
          if (statistic == RollingStatistic::standard_deviation) {
            *cell = static_cast<double>(deviation);
          } else {
            *cell = deviation == 0.0L ? 0.0 : static_cast<double>((value - mean) / deviation);
          }
        }
      }
      cell += columns;
    }
  }
}

}  // namespace quernbrook::kernels
