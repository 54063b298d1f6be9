#pragma once

#include <cmath>
#include <cstddef>
#include <limits>
#include <random>
#include <vector>

namespace row_kernel_tests {

constexpr double nan = std::numeric_limits<double>::quiet_NaN();
constexpr double infinity = std::numeric_limits<double>::infinity();

/// Rows of equally many cells, C-ordered.
struct Panel {
  std::size_t rows;
  std::size_t columns;
  std::vector<double> cells;

  Panel(std::size_t row_count, std::size_t column_count)
      : rows(row_count), columns(column_count), cells(row_count * column_count) {}

  double& at(std::size_t row, std::size_t column) { return cells[row * columns + column]; }
  double at(std::size_t row, std::size_t column) const { return cells[row * columns + column]; }
};

/// Columns of different character: noise, noise far from zero, a walk, equal runs, few values,
/// noise after something huge, a trend, outliers. All but the first two with NaN and infinities, 1
/// cell in 100 at a share of 1.
inline Panel random_panel(std::size_t rows, std::size_t columns, unsigned seed,
                          double share_of_gaps = 1.0) {
  std::mt19937_64 bits(seed);
  std::normal_distribution<double> normal;
  std::uniform_int_distribution<int> dice(0, 999);
  std::bernoulli_distribution is_gap(0.01 * share_of_gaps);
  Panel panel(rows, columns);
  for (std::size_t column = 0; column < columns; ++column) {
    double level = 100.0;
    for (std::size_t row = 0; row < rows; ++row) {
      double value = normal(bits);
      switch (column % 8) {
        case 1:
          value = 1e8 + value;
          break;
        case 2:
          value = level *= std::exp(0.02 * value);
          break;
        case 3:
          if (dice(bits) < 60) level = 0.1 * (1 + dice(bits));
          value = level;
          break;
        case 4:
          value = dice(bits) % 3;
          break;
        case 5:
          if (dice(bits) < 15) value = dice(bits) < 500 ? 1e60 : -1e59;
          break;
        case 6:
          value = 3.0 * static_cast<double>(row) + 0.01 * value;
          break;
        case 7:
          if (dice(bits) < 20) value *= 1e6;
          break;
        default:
          break;
      }
      if (column % 8 > 1 && is_gap(bits)) {
        const int fate = dice(bits);
        value = fate < 800 ? nan : fate < 900 ? infinity : -infinity;
      }
      panel.at(row, column) = value;
    }
  }
  return panel;
}

}  // namespace row_kernel_tests
