#pragma once

#include "time/loops/centre.hpp"
#include "time/loops/ends.hpp"

namespace quernbrook::row_kernels::QUERNBROOK_INSTRUCTION_SET {

/// Statistics of deviations from all rows of the window anew for each row: what takes less time
/// than parts in very short windows. A tile holds nothing but the rows.
template <class Statistic>
void advance_directly(const Plan& plan, double* tile, std::size_t columns, std::size_t place,
                      bool is_filling, const Rows* arguments, std::ptrdiff_t row_count,
                      double* result, std::ptrdiff_t result_stride) noexcept {
  constexpr std::size_t count = Statistic::arguments;
  for (std::size_t column = 0; column < columns; column += lane_count) {
    const double* next[count];
    for (std::size_t a = 0; a < count; ++a) next[a] = arguments[a].first + column;
    const auto rows = [cells = tile + column](std::size_t row) {
      return load_fields<Cells<count>>(cells + row * count * tile_columns);
    };
    double* target = result + column;
    std::size_t at = place;
    bool is_full = !is_filling;
    for (std::ptrdiff_t left = row_count; left > 0; --left) {
      Cells<count> newest;
      for (std::size_t a = 0; a < count; ++a) {
        newest.of[a] = load(next[a]);
        fetch_ahead<0>(next[a]);
        next[a] += arguments[a].stride;
      }
      store_fields(tile + column + at * count * tile_columns, newest);
      if (++at == plan.window) {
        at = 0;
        is_full = true;
      }
      Lanes value = all(__builtin_nan(""));
      if (is_full) {
        const typename Statistic::Base base{mean_of_part<count>(rows, plan.window)};
        typename Statistic::Part part{};
        for (std::size_t row = 0; row < plan.window; ++row) {
          if constexpr (requires { part.add_near(newest, base.centre); }) {
            part.add_near(rows(row), base.centre);
          } else {
            Statistic::append(plan, base, part, rows(row), row);
          }
        }
        value = Statistic::finish(plan, base, part, {}, newest, 0);
      }
      store(target, value);
      fetch_ahead<1>(target);
      target += result_stride;
    }
  }
}

template <class Statistic>
inline constexpr TileLoops direct_loops{Statistic::arguments, size_of_rows<Statistic>,
                                        advance_directly<Statistic>, rebuild_nothing<Statistic>};

}  // namespace quernbrook::row_kernels::QUERNBROOK_INSTRUCTION_SET
