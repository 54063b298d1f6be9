#include "fast_paths/kernels/rank.hpp"

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

#include "fast_paths/kernels/universe_mask.hpp"

namespace quernbrook::kernels {

bool rank_rows(const double* data, std::ptrdiff_t row_step, std::ptrdiff_t column_step,
               const double* universe, std::ptrdiff_t universe_row_step,
               std::ptrdiff_t universe_column_step, double* result, std::size_t rows,
               std::size_t columns) {
  constexpr double nan = std::numeric_limits<double>::quiet_NaN();
  constexpr double infinity = std::numeric_limits<double>::infinity();
  std::vector<double> values(columns);
  std::vector<std::size_t> order(columns);
  for (std::size_t row = 0; row < rows; ++row) {
    if (universe != nullptr) {
      mask_universe(data, column_step, universe, universe_column_step, values.data(), columns);
      universe += universe_row_step;
    } else {
      const double* cell = data;
      for (double& value : values) {
        value = *cell;
        cell += column_step;
      }
    }
    data += row_step;
    std::size_t count = 0;
    for (std::size_t column = 0; column < columns; ++column) {
      order[column] = column;
      result[column] = 0.0;
      if (std::isnan(values[column])) {
        values[column] = infinity;
        result[column] = nan;
      } else {
        ++count;
      }
    }
    std::sort(order.begin(), order.end(), [&](std::size_t left, std::size_t right) {
      return values[left] != values[right] ? values[left] < values[right] : left < right;
    });
    for (std::size_t place = 0; place < columns; ++place) {
      const double value = values[order[place]];
      if (place > 0 && std::isfinite(value) && value == values[order[place - 1]]) return false;
      double& rank = result[order[place]];
      if (std::isnan(rank)) continue;
      rank = count == 1 ? 0.5 : static_cast<double>(place) / static_cast<double>(count - 1);
    }
    result += columns;
  }
  return true;
}

}  // namespace quernbrook::kernels
