#include "kernels/rolling.hpp"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <vector>

namespace quernbrook::kernels {
namespace {

// A tile is one cache line wide, and its blocks fit the first-level cache together.
constexpr std::size_t tile_rows = 64;
constexpr std::size_t tile_columns = 8;

// Bounds the workspace, however wide the matrix is.
constexpr std::size_t stripe_columns = 1024;

using Block = double[tile_rows][tile_columns];

struct Tile {
  std::size_t rows;
  std::size_t columns;
  alignas(64) Block entering;  // the values that the windows gain, zero where NaN
  alignas(64) Block leaving;   // the values that they lose, zero where NaN
  alignas(64) Block clean;     // the rows since the last NaN, to compare with the window
  alignas(64) Block computed;  // the statistic, also where the window is not clean
};

// The totals to the end of a window and to its beginning. Both repeat the same additions, the
// second a window later, which is cheaper than keeping the totals of every row.
struct Totals {
  // Negative zero is the one start that keeps the sign of a first zero.
  long double sum = -0.0L;
  long double square_sum = -0.0L;
  // Nothing leaves the first window.
  long double left_sum = 0.0L;
  long double left_square_sum = 0.0L;
};

// Two cells in one register of any x86-64. Spelt out, as compilers leave such short loops scalar.
using Pair [[gnu::vector_size(16)]] = double;
constexpr std::size_t tile_pairs = tile_columns / 2;

inline Pair load_pair(const double* cells) noexcept {
  Pair pair;
  std::memcpy(&pair, cells, sizeof pair);
  return pair;
}

inline void store_pair(double* cells, Pair pair) noexcept {
  std::memcpy(cells, &pair, sizeof pair);
}

inline Pair zero_if_nan(Pair pair) noexcept { return pair == pair ? pair : Pair{}; }

// What a tile hands on to the tile below it. Clean rows are doubles, as vectors compare them best.
struct Columns {
  Totals totals[tile_columns];
  Pair clean_rows[tile_pairs] = {};
};

// The cells of the matrix under a tile. `ahead` leads from a cell to one of the next tile, whose
// lines are fetched while this tile is computed: they lie too far apart for the hardware to guess.
struct Source {
  const double* cells;
  std::ptrdiff_t row_stride;
  std::ptrdiff_t column_stride;
  std::ptrdiff_t ahead;
};

template <bool whole_lines, class Visit>
inline void visit_pairs(const Tile& tile, Source source, Visit visit) noexcept {
  for (std::size_t row = 0; row < tile.rows; ++row) {
    const double* cell = source.cells;
    source.cells += source.row_stride;
    __builtin_prefetch(cell + source.ahead);
    if constexpr (whole_lines) {
      for (std::size_t pair = 0; pair < tile_pairs; ++pair) {
        visit(row, pair, load_pair(cell + 2 * pair));
      }
    } else {
      for (std::size_t column = 0; column < tile.columns; column += 2) {
        const double* second = column + 1 < tile.columns ? cell + source.column_stride : cell;
        visit(row, column / 2, Pair{*cell, *second});
        cell += 2 * source.column_stride;
      }
    }
  }
}

template <class Visit>
inline void visit_pairs(const Tile& tile, const Source& source, Visit visit) noexcept {
  if (source.column_stride == 1 && tile.columns == tile_columns) {
    visit_pairs<true>(tile, source, visit);
  } else {
    visit_pairs<false>(tile, source, visit);
  }
}

void load_entering(Tile& tile, const Source& source, Columns& columns) noexcept {
  Pair clean[tile_pairs];
  std::copy_n(columns.clean_rows, tile_pairs, clean);
  visit_pairs(tile, source, [&](std::size_t row, std::size_t pair, Pair values) {
    clean[pair] = values == values ? clean[pair] + 1.0 : Pair{};
    store_pair(tile.clean[row] + 2 * pair, clean[pair]);
    store_pair(tile.entering[row] + 2 * pair, zero_if_nan(values));
  });
  std::copy_n(clean, tile_pairs, columns.clean_rows);
}

void load_leaving(Tile& tile, const Source& source) noexcept {
  visit_pairs(tile, source, [&](std::size_t row, std::size_t pair, Pair values) {
    store_pair(tile.leaving[row] + 2 * pair, zero_if_nan(values));
  });
}

void store(const Tile& tile, double window, double* result, std::size_t row_stride,
           std::ptrdiff_t ahead) noexcept {
  constexpr double nan = std::numeric_limits<double>::quiet_NaN();
  for (std::size_t row = 0; row < tile.rows; ++row) {
    __builtin_prefetch(result + ahead, 1);
    if (tile.columns == tile_columns) {
      for (std::size_t column = 0; column < tile_columns; column += 2) {
        const Pair clean = load_pair(tile.clean[row] + column);
        const Pair computed = load_pair(tile.computed[row] + column);
        store_pair(result + column, clean >= window ? computed : Pair{nan, nan});
      }
    } else {
      for (std::size_t column = 0; column < tile.columns; ++column) {
        result[column] = tile.clean[row][column] >= window ? tile.computed[row][column] : nan;
      }
    }
    result += row_stride;
  }
}

// The totals stay in registers for a whole block: loads and stores of extended precision are slow.
template <bool squares>
void accumulate(const Block& block, const Tile& tile, Totals* totals, long double Totals::* sum_of,
                long double Totals::* square_sum_of) noexcept {
  for (std::size_t column = 0; column < tile.columns; ++column) {
    long double sum = totals[column].*sum_of;
    long double square_sum = totals[column].*square_sum_of;
    for (std::size_t row = 0; row < tile.rows; ++row) {
      const long double value = block[row][column];
      sum += value;
      if constexpr (squares) square_sum += value * value;
    }
    totals[column].*sum_of = sum;
    totals[column].*square_sum_of = square_sum;
  }
}

void accumulate(RollingStatistic statistic, const Block& block, const Tile& tile, Totals* totals,
                long double Totals::* sum, long double Totals::* square_sum) noexcept {
  if (statistic == RollingStatistic::mean) {
    accumulate<false>(block, tile, totals, sum, square_sum);
  } else {
    accumulate<true>(block, tile, totals, sum, square_sum);
  }
}

bool has_clean_window(const Tile& tile, double window) noexcept {
  const double* cells = tile.clean[0];
  return std::any_of(cells, cells + tile.rows * tile_columns,
                     [window](double rows) { return rows >= window; });
}

// Two columns at a time, as one alone would wait for its additions.
void compute_means(Tile& tile, Totals* totals, const volatile double& window) noexcept {
  for (std::size_t column = 0; column < tile.columns; column += 2) {
    Totals& first = totals[column];
    Totals& second = totals[column + 1];
    long double first_sum = first.sum;
    long double first_left_sum = first.left_sum;
    long double second_sum = second.sum;
    long double second_left_sum = second.left_sum;
    for (std::size_t row = 0; row < tile.rows; ++row) {
      const double* entering = tile.entering[row] + column;
      const double* leaving = tile.leaving[row] + column;
      double* computed = tile.computed[row] + column;
      first_sum += entering[0];
      first_left_sum += leaving[0];
      computed[0] = static_cast<double>((first_sum - first_left_sum) / window);
      second_sum += entering[1];
      second_left_sum += leaving[1];
      computed[1] = static_cast<double>((second_sum - second_left_sum) / window);
    }
    first.sum = first_sum;
    first.left_sum = first_left_sum;
    second.sum = second_sum;
    second.left_sum = second_left_sum;
  }
}

template <bool z_score>
void compute_deviations(Tile& tile, Totals* totals, const volatile double& window) noexcept {
  for (std::size_t column = 0; column < tile.columns; ++column) {
    auto [sum, square_sum, left_sum, left_square_sum] = totals[column];
    for (std::size_t row = 0; row < tile.rows; ++row) {
      const long double leaving = tile.leaving[row][column];
      left_sum += leaving;
      left_square_sum += leaving * leaving;
      const long double entering = tile.entering[row][column];
      sum += entering;
      square_sum += entering * entering;
      const long double mean = (sum - left_sum) / window;
      const long double variance = (square_sum - left_square_sum) / window - mean * mean;
      double& computed = tile.computed[row][column];
      if (variance <= 0.0L) {  // cancellation may leave it below zero; NaN passes
        computed = 0.0;
      } else if constexpr (z_score) {
        computed = static_cast<double>((entering - mean) / std::sqrt(variance));
      } else {
        computed = static_cast<double>(std::sqrt(variance));
      }
    }
    totals[column] = {sum, square_sum, left_sum, left_square_sum};
  }
}

void compute(RollingStatistic statistic, Tile& tile, Totals* totals,
             const volatile double& window) noexcept {
  switch (statistic) {
    case RollingStatistic::mean:
      return compute_means(tile, totals, window);
    case RollingStatistic::standard_deviation:
      return compute_deviations<false>(tile, totals, window);
    case RollingStatistic::z_score:
      return compute_deviations<true>(tile, totals, window);
  }
}

// Tiles end where a window first fills and where it first loses a row.
std::size_t tile_height(std::size_t row, std::size_t rows, std::size_t window) noexcept {
  const std::size_t end = row + 1 < window ? window - 1 : row < window ? window : rows;
  return std::min(end - row, tile_rows);
}

}  // namespace

void rolling(RollingStatistic statistic, const MatrixView& data, std::size_t window, double* result,
             const Pause& pause) {
  const auto rows = static_cast<std::size_t>(data.rows);
  const auto columns = static_cast<std::size_t>(data.columns);
  const double* const cells = data.cells;
  const std::ptrdiff_t row_stride = data.row_stride;
  const std::ptrdiff_t column_stride = data.column_stride;
  // Volatile keeps it a double: as a long double it would be spilt, and reloading one is slow.
  const volatile double divisor = static_cast<double>(window);
  Tile tile{};
  for (std::size_t stripe = 0; stripe < columns; stripe += stripe_columns) {
    const std::size_t stripe_end = std::min(columns, stripe + stripe_columns);
    std::vector<Columns> states((stripe_end - stripe + tile_columns - 1) / tile_columns);
    for (std::size_t row = 0; row < rows; row += tile.rows) {
      tile.rows = tile_height(row, rows, window);
      for (std::size_t column = stripe; column < stripe_end; column += tile_columns) {
        tile.columns = std::min(stripe_end - column, tile_columns);
        Columns& state = states[(column - stripe) / tile_columns];
        std::ptrdiff_t rows_ahead = 0;
        std::ptrdiff_t columns_ahead = 0;
        if (column + tile_columns < stripe_end) {
          columns_ahead =
              static_cast<std::ptrdiff_t>(std::min(2 * tile_columns, stripe_end - column) - 1);
        } else if (row + 2 * tile.rows <= rows) {
          rows_ahead = static_cast<std::ptrdiff_t>(tile.rows);
          columns_ahead = -static_cast<std::ptrdiff_t>(column - stripe);
        }
        Source source{cells + static_cast<std::ptrdiff_t>(row) * row_stride +
                          static_cast<std::ptrdiff_t>(column) * column_stride,
                      row_stride, column_stride,
                      rows_ahead * row_stride + columns_ahead * column_stride};
        load_entering(tile, source, state);
        if (row + 1 < window) {
          accumulate(statistic, tile.entering, tile, state.totals, &Totals::sum,
                     &Totals::square_sum);
        } else {
          if (row < window) {
            std::memset(tile.leaving, 0, sizeof tile.leaving);
          } else {
            source.cells -= static_cast<std::ptrdiff_t>(window) * row_stride;
            load_leaving(tile, source);
          }
          if (row == window) {
            for (Totals& totals : state.totals) totals.left_sum = totals.left_square_sum = -0.0L;
          }
          if (has_clean_window(tile, divisor)) {
            compute(statistic, tile, state.totals, divisor);
          } else {
            accumulate(statistic, tile.entering, tile, state.totals, &Totals::sum,
                       &Totals::square_sum);
            accumulate(statistic, tile.leaving, tile, state.totals, &Totals::left_sum,
                       &Totals::left_square_sum);
          }
        }
        store(tile, divisor, result + row * columns + column, columns,
              rows_ahead * static_cast<std::ptrdiff_t>(columns) + columns_ahead);
      }
      pause();
    }
  }
}

}  // namespace quernbrook::kernels
