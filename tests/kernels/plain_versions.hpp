#pragma once

#include <cmath>
#include <cstddef>
#include <optional>
#include <vector>

#include "fast_paths/kernels/rolling.hpp"
#include "matrix.hpp"

// The kernels once more, as plainly as they can be put: what they are compared with, bit for bit.

namespace kernel_tests {

inline Matrix plain_mask(const Matrix& data, const Matrix& universe) {
  Matrix result(data.rows, data.columns);
  for (std::size_t row = 0; row < data.rows; ++row) {
    for (std::size_t column = 0; column < data.columns; ++column) {
      const double member = universe.at(row, column);
      const bool inactive = member == 0.0 || std::isnan(member);
      result.at(row, column) = inactive ? nan : data.at(row, column);
    }
  }
  return result;
}

/// A cell's place is the number of cells before it: the smaller ones, and the equal ones to its
/// left. NaN stands for positive infinity. Nothing, if two finite values of a row are equal.
inline std::optional<Matrix> plain_rank(const Matrix& data) {
  Matrix result(data.rows, data.columns);
  for (std::size_t row = 0; row < data.rows; ++row) {
    std::vector<double> filled(data.columns);
    std::size_t count = 0;
    for (std::size_t column = 0; column < data.columns; ++column) {
      const double value = data.at(row, column);
      filled[column] = std::isnan(value) ? infinity : value;
      if (!std::isnan(value)) ++count;
    }
    for (std::size_t column = 0; column < data.columns; ++column) {
      std::size_t place = 0;
      for (std::size_t other = 0; other < data.columns; ++other) {
        const bool equal = filled[other] == filled[column];
        if (equal && other < column && std::isfinite(filled[column])) return std::nullopt;
        if (filled[other] < filled[column] || (equal && other < column)) ++place;
      }
      const double rank =
          count == 1 ? 0.5 : static_cast<double>(place) / static_cast<double>(count - 1);
      result.at(row, column) = std::isnan(data.at(row, column)) ? nan : rank;
    }
  }
  return result;
}

/// The running totals of every row, and the differences of two of them.
inline Matrix plain_rolling(quernbrook::kernels::RollingStatistic statistic, const Matrix& data,
                            std::size_t window) {
  using quernbrook::kernels::RollingStatistic;
  Matrix result(data.rows, data.columns);
  for (std::size_t column = 0; column < data.columns; ++column) {
    std::vector<long double> sums{0.0L};
    std::vector<long double> square_sums{0.0L};
    std::vector<std::size_t> holes{0};
    for (std::size_t row = 0; row < data.rows; ++row) {
      const double value = data.at(row, column);
      const long double safe = std::isnan(value) ? 0.0L : static_cast<long double>(value);
      // Zero plus the first value would lose the sign of a negative zero.
      sums.push_back(row == 0 ? safe : sums.back() + safe);
      square_sums.push_back(row == 0 ? safe * safe : square_sums.back() + safe * safe);
      holes.push_back(holes.back() + (std::isnan(value) ? 1 : 0));
      double& cell = result.at(row, column);
      cell = nan;
      if (row + 1 < window || holes[row + 1] != holes[row + 1 - window]) continue;
      const auto divisor = static_cast<long double>(window);
      const long double mean = (sums[row + 1] - sums[row + 1 - window]) / divisor;
      const long double difference =
          (square_sums[row + 1] - square_sums[row + 1 - window]) / divisor - mean * mean;
      const long double deviation = std::sqrt(0.0L >= difference ? 0.0L : difference);
      if (statistic == RollingStatistic::mean) {
        cell = static_cast<double>(mean);
      } else if (statistic == RollingStatistic::standard_deviation) {
        cell = static_cast<double>(deviation);
      } else {
        cell = deviation == 0.0L ? 0.0 : static_cast<double>((value - mean) / deviation);
      }
    }
  }
  return result;
}

/// The rows are added in their order to zero, and the sums divided by their number.
inline std::vector<double> plain_column_mean(const Matrix& block) {
  std::vector<double> means(block.columns);
  for (std::size_t column = 0; column < block.columns; ++column) {
    for (std::size_t row = 0; row < block.rows; ++row) means[column] += block.at(row, column);
    means[column] /= static_cast<double>(block.rows);
  }
  return means;
}

}  // namespace kernel_tests
