#include "fast_paths/kernels/rolling.hpp"

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

namespace quernbrook::kernels {
namespace {

// A tile is one cache line wide, and its blocks fit the first-level cache together.
constexpr std::size_t tile_rows = 64;
constexpr std::size_t tile_columns = 8;

// Bounds the workspace, however wide the matrix is.
constexpr std::size_t stripe_columns = 1024;

struct alignas(64) Block {
  double cells[tile_rows][tile_columns];
};

struct Tile {
  Block leading;   // the rows that enter the windows, zero where NaN
  Block lagging;   // the rows that leave them, zero where NaN
  Block wanted;    // one where the window is full and free of NaN, else zero
  Block computed;  // the statistic, wanted or not
};

// The totals to the end of a window and to its beginning. Both repeat the same additions, the
// second a window later, which is cheaper than to keep the totals of every row.
struct Totals {
  // Negative zero is the one start that leaves the sign of a first zero alone.
  long double sum = -0.0L;
  long double square_sum = -0.0L;
  // Nothing has left the first window.
  long double lagging_sum = 0.0L;
  long double lagging_square_sum = 0.0L;
};

// The state of one column from tile to tile.
struct Columns {
  explicit Columns(std::size_t count)
      : totals(round_up(count)), clean_rows(round_up(count)) {}

  static std::size_t round_up(std::size_t count) {
    return (count + tile_columns - 1) / tile_columns * tile_columns;
  }

  std::vector<Totals> totals;
  std::vector<double> clean_rows;  // since the last NaN; double as comparisons of it vectorise
};

void copy_in(Block& block, const double* data, std::ptrdiff_t row_step, std::ptrdiff_t column_step,
             std::size_t rows, std::size_t columns) noexcept {
  for (std::size_t row = 0; row < rows; ++row) {
    double* cells = block.cells[row];
    if (column_step == 1 && columns == tile_columns) {
      std::copy_n(data, tile_columns, cells);
    } else {
      const double* cell = data;
      for (std::size_t column = 0; column < columns; ++column) {
        cells[column] = *cell;
        cell += column_step;
      }
    }
    data += row_step;
  }
}

void copy_out(const Block& block, double* result, std::size_t row_step, std::size_t rows,
              std::size_t columns) noexcept {
  for (std::size_t row = 0; row < rows; ++row) {
    if (columns == tile_columns) {
      std::copy_n(block.cells[row], tile_columns, result);
    } else {
      std::copy_n(block.cells[row], columns, result);
    }
    result += row_step;
  }
}

void find_wanted(Tile& tile, double* clean_rows, std::size_t rows, double window) noexcept {
  for (std::size_t row = 0; row < rows; ++row) {
    for (std::size_t column = 0; column < tile_columns; ++column) {
      const bool is_nan = std::isnan(tile.leading.cells[row][column]);
      const double clean = is_nan ? 0.0 : clean_rows[column] + 1.0;
      clean_rows[column] = clean;
      tile.wanted.cells[row][column] = clean >= window ? 1.0 : 0.0;
    }
  }
}

void zero_nans(Block& block, std::size_t rows) noexcept {
  for (std::size_t row = 0; row < rows; ++row) {
    for (double& cell : block.cells[row]) cell = std::isnan(cell) ? 0.0 : cell;
  }
}

void blank_unwanted(Tile& tile, std::size_t rows) noexcept {
  constexpr double nan = std::numeric_limits<double>::quiet_NaN();
  for (std::size_t row = 0; row < rows; ++row) {
    for (std::size_t column = 0; column < tile_columns; ++column) {
      double& cell = tile.computed.cells[row][column];
      cell = tile.wanted.cells[row][column] != 0.0 ? cell : nan;
    }
  }
}

// The totals stay in registers for a whole tile: loads and stores of extended precision are slow.
void add_columns(const Block& block, Totals* totals, std::size_t rows,
                 std::size_t columns) noexcept {
  for (std::size_t column = 0; column < columns; ++column) {
    long double sum = totals[column].sum;
    long double square_sum = totals[column].square_sum;
    for (std::size_t row = 0; row < rows; ++row) {
      const long double value = block.cells[row][column];
      sum += value;
      square_sum += value * value;
    }
    totals[column].sum = sum;
    totals[column].square_sum = square_sum;
  }
}

// Two columns at a time, as one alone would wait for its additions.
void compute_means(Tile& tile, Totals* totals, std::size_t rows, double window) noexcept {
  for (std::size_t column = 0; column < tile_columns; column += 2) {
    Totals& left = totals[column];
    Totals& right = totals[column + 1];
    long double left_sum = left.sum;
    long double left_lagging_sum = left.lagging_sum;
    long double right_sum = right.sum;
    long double right_lagging_sum = right.lagging_sum;
    for (std::size_t row = 0; row < rows; ++row) {
      const double* leading = tile.leading.cells[row] + column;
      const double* lagging = tile.lagging.cells[row] + column;
      double* computed = tile.computed.cells[row] + column;
      left_sum += leading[0];
      left_lagging_sum += lagging[0];
      computed[0] = static_cast<double>((left_sum - left_lagging_sum) / window);
      right_sum += leading[1];
      right_lagging_sum += lagging[1];
      computed[1] = static_cast<double>((right_sum - right_lagging_sum) / window);
    }
    left.sum = left_sum;
    left.lagging_sum = left_lagging_sum;
    right.sum = right_sum;
    right.lagging_sum = right_lagging_sum;
  }
}

template <bool z_score>
void compute_deviations(Tile& tile, Totals* totals, std::size_t rows, std::size_t columns,
                        double window) noexcept {
  for (std::size_t column = 0; column < columns; ++column) {
    auto [sum, square_sum, lagging_sum, lagging_square_sum] = totals[column];
    for (std::size_t row = 0; row < rows; ++row) {
      const long double entering = tile.leading.cells[row][column];
      const long double leaving = tile.lagging.cells[row][column];
      sum += entering;
      square_sum += entering * entering;
      lagging_sum += leaving;
      lagging_square_sum += leaving * leaving;
      const long double mean = (sum - lagging_sum) / window;
      const long double spread = (square_sum - lagging_square_sum) / window - mean * mean;
      // Cancellation may leave it below zero; NaN passes.
      const long double deviation = __builtin_sqrtl(spread <= 0.0L ? 0.0L : spread);
      double& computed = tile.computed.cells[row][column];
      if constexpr (z_score) {
        const auto quotient = static_cast<double>((entering - mean) / deviation);
        computed = deviation == 0.0L ? 0.0 : quotient;
      } else {
        computed = static_cast<double>(deviation);
      }
    }
    totals[column] = {sum, square_sum, lagging_sum, lagging_square_sum};
  }
}

}  // namespace

void rolling(RollingStatistic statistic, const double* data, std::ptrdiff_t row_step,
             std::ptrdiff_t column_step, double* result, std::size_t rows, std::size_t columns,
             std::size_t window) {
  const auto divisor = static_cast<double>(window);
  Tile tile{};
  for (std::size_t stripe = 0; stripe < columns; stripe += stripe_columns) {
    const std::size_t stripe_end = std::min(columns, stripe + stripe_columns);
    Columns state(stripe_end - stripe);
    std::size_t row = 0;
    while (row < rows) {
      // Tiles end where a window first fills and where a row first leaves one.
      const std::size_t end = row < window - 1 ? window - 1 : row < window ? window : rows;
      const std::size_t height = std::min(end - row, tile_rows);
      if (row == window) {
        for (Totals& totals : state.totals) totals.lagging_sum = totals.lagging_square_sum = -0.0L;
      }
      for (std::size_t column = stripe; column < stripe_end; column += tile_columns) {
        const std::size_t width = std::min(stripe_end - column, tile_columns);
        Totals* totals = state.totals.data() + (column - stripe);
        double* clean_rows = state.clean_rows.data() + (column - stripe);
        const double* source = data + static_cast<std::ptrdiff_t>(column) * column_step;
        copy_in(tile.leading, source + static_cast<std::ptrdiff_t>(row) * row_step, row_step,
                column_step, height, width);
        find_wanted(tile, clean_rows, height, divisor);
        zero_nans(tile.leading, height);
        if (row < window - 1) {
          add_columns(tile.leading, totals, height, width);
        } else {
          if (row >= window) {
            copy_in(tile.lagging, source + static_cast<std::ptrdiff_t>(row - window) * row_step,
                    row_step, column_step, height, width);
            zero_nans(tile.lagging, height);
          } else {
            tile.lagging = {};
          }
          switch (statistic) {
            case RollingStatistic::mean:
              compute_means(tile, totals, height, divisor);
              break;
            case RollingStatistic::standard_deviation:
              compute_deviations<false>(tile, totals, height, width, divisor);
              break;
            case RollingStatistic::z_score:
              compute_deviations<true>(tile, totals, height, width, divisor);
              break;
          }
        }
        blank_unwanted(tile, height);
        copy_out(tile.computed, result + row * columns + column, columns, height, width);
      }
      row += height;
    }
  }
}

}  // namespace quernbrook::kernels
