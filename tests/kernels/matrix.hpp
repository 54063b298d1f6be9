#pragma once

#include <bit>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "kernels/matrix_view.hpp"

namespace kernel_tests {

constexpr double nan = std::numeric_limits<double>::quiet_NaN();
constexpr double infinity = std::numeric_limits<double>::infinity();

/// For kernels that are to go on.
inline void no_pause() {}

/// A matrix in memory of any layout.
struct Matrix {
  std::size_t rows;
  std::size_t columns;
  std::ptrdiff_t row_stride;
  std::ptrdiff_t column_stride;
  std::vector<double> memory;
  std::ptrdiff_t origin = 0;

  Matrix(std::size_t row_count, std::size_t column_count, std::vector<double> cells = {})
      : rows(row_count),
        columns(column_count),
        row_stride(static_cast<std::ptrdiff_t>(column_count)),
        column_stride(1),
        memory(std::move(cells)) {
    memory.resize(rows * columns);
  }

  const double* data() const { return memory.data() + origin; }
  double* data() { return memory.data() + origin; }

  quernbrook::kernels::MatrixView view() const {
    return {data(), row_stride, column_stride, static_cast<std::ptrdiff_t>(rows),
            static_cast<std::ptrdiff_t>(columns)};
  }

  const double& at(std::size_t row, std::size_t column) const {
    return data()[static_cast<std::ptrdiff_t>(row) * row_stride +
                  static_cast<std::ptrdiff_t>(column) * column_stride];
  }
  double& at(std::size_t row, std::size_t column) {
    return const_cast<double&>(std::as_const(*this).at(row, column));
  }
};

/// The same cells column by column, every second place, or from the last cell to the first.
enum class Layout { column_major, spaced, reversed };

inline Matrix laid_out(const Matrix& source, Layout layout) {
  const auto rows = static_cast<std::ptrdiff_t>(source.rows);
  const auto columns = static_cast<std::ptrdiff_t>(source.columns);
  Matrix copy(source.rows, source.columns);
  switch (layout) {
    case Layout::column_major:
      copy.row_stride = 1;
      copy.column_stride = rows;
      break;
    case Layout::spaced:
      copy.row_stride = 4 * columns;
      copy.column_stride = 2;
      copy.memory.resize(static_cast<std::size_t>(4 * rows * columns));
      break;
    case Layout::reversed:
      copy.row_stride = -columns;
      copy.column_stride = -1;
      copy.origin = rows * columns - 1;
      break;
  }
  for (std::size_t row = 0; row < source.rows; ++row) {
    for (std::size_t column = 0; column < source.columns; ++column) {
      copy.at(row, column) = source.at(row, column);
    }
  }
  return copy;
}

/// Equal to the last bit, so that NaN equals NaN and the zeros differ.
inline bool same_bits(double left, double right) {
  return std::bit_cast<std::uint64_t>(left) == std::bit_cast<std::uint64_t>(right);
}

/// Tells the first cell in which two matrices differ; empty if there is none.
inline std::string difference(const Matrix& actual, const Matrix& expected) {
  for (std::size_t row = 0; row < expected.rows; ++row) {
    for (std::size_t column = 0; column < expected.columns; ++column) {
      const double left = actual.at(row, column);
      const double right = expected.at(row, column);
      if (!same_bits(left, right)) {
        return "row " + std::to_string(row) + ", column " + std::to_string(column) + ": " +
               std::to_string(left) + " instead of " + std::to_string(right);
      }
    }
  }
  return {};
}

/// Normally distributed cells, with NaN in some of them.
inline Matrix random_matrix(std::size_t rows, std::size_t columns, unsigned seed,
                            double share_of_nan = 0.03) {
  std::mt19937_64 generator(seed);
  std::normal_distribution<double> normal;
  std::bernoulli_distribution is_nan(share_of_nan);
  Matrix matrix(rows, columns);
  for (double& cell : matrix.memory) {
    cell = normal(generator);
    if (is_nan(generator)) cell = nan;
  }
  return matrix;
}

}  // namespace kernel_tests
