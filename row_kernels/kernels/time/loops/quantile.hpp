#pragma once

#include "time/loops/rank.hpp"

namespace quernbrook::row_kernels::QUERNBROOK_INSTRUCTION_SET {

/// A quantile from the sorted window. After the rows a tile holds a line with the number of rows
/// since the last NaN, then the window's values, sorted down each column, and a line above them
/// all. Infinity stands for NaN and for rows that aren't there.
struct SortedLines {
  static Lanes sortable(Lanes cells) noexcept {
    // Both zeros become the same one.
    return select(cells == cells, cells + 0.0, all(__builtin_huge_val()));
  }

  /// Takes `oldest` out and `newest` in, in one pass: `without` are the values less the oldest.
  static void replace(double* sorted, std::size_t window, Lanes oldest, Lanes newest) noexcept {
    Lanes value = load(sorted);
    Lanes before = all(-__builtin_huge_val());
    for (std::size_t row = 0; row < window; ++row) {
      const Lanes following = load(sorted + tile_columns);
      const Lanes without = select(value < oldest, value, following);
      const Lanes at_least = newest > before ? newest : before;
      store(sorted, at_least < without ? at_least : without);
      before = without;
      value = following;
      sorted += tile_columns;
    }
  }

  static void clear(double* sorted, std::size_t window) noexcept {
    for (std::size_t row = 0; row <= window; ++row) {
      store(sorted + row * tile_columns, all(__builtin_huge_val()));
    }
  }
};

/// Between the values at two places, as near to the upper one as `share` tells.
inline Lanes interpolated(Lanes lower, Lanes upper, double share) noexcept {
  const Lanes distance = upper - lower;
  const Lanes between = share < 0.5 ? lower + distance * share : upper - distance * (1.0 - share);
  return select(lower == upper, lower, between);
}

inline void advance_quantile(const Plan& plan, double* tile, std::size_t columns, std::size_t place,
                             bool is_filling, const Rows* arguments, std::ptrdiff_t row_count,
                             double* result, std::ptrdiff_t result_stride) noexcept {
  const auto count = static_cast<double>(plan.window);
  const double position = plan.factor * (count - 1.0);
  const auto lower = static_cast<std::size_t>(position);
  const double share = position - static_cast<double>(lower);
  const std::size_t upper = share > 0.0 ? lower + 1 : lower;
  for (std::size_t column = 0; column < columns; column += lane_count) {
    double* rows = tile + column;
    double* clean_rows = rows + plan.window * tile_columns;
    double* sorted = clean_rows + tile_columns;
    Lanes clean = load(clean_rows);
    if (is_filling && place == 0) {
      clean = Lanes{};
      SortedLines::clear(sorted, plan.window);
    }
    const double* next = arguments[0].first + column;
    double* target = result + column;
    std::size_t at = place;
    bool is_full = !is_filling;
    for (std::ptrdiff_t left = row_count; left > 0; --left) {
      const Lanes newest = load(next);
      fetch_ahead<0>(next);
      const Lanes oldest = is_full ? SortedLines::sortable(load(rows + at * tile_columns))
                                   : all(__builtin_huge_val());
      store(rows + at * tile_columns, newest);
      clean = select(newest == newest, clean + 1.0, Lanes{});
      SortedLines::replace(sorted, plan.window, oldest, SortedLines::sortable(newest));
      const Lanes quantile = interpolated(load(sorted + lower * tile_columns),
                                          load(sorted + upper * tile_columns), share);
      store(target, select(clean >= count, quantile, all(__builtin_nan(""))));
      fetch_ahead<1>(target);
      if (++at == plan.window) {
        at = 0;
        is_full = true;
      }
      next += arguments[0].stride;
      target += result_stride;
    }
    store(clean_rows, clean);
  }
}

inline void rebuild_quantile(const Plan& plan, double* tile, std::size_t place) noexcept {
  count_clean_rows(plan, tile, place);
  for (std::size_t column = 0; column < tile_columns; column += lane_count) {
    double* sorted = tile + (plan.window + 1) * tile_columns + column;
    SortedLines::clear(sorted, plan.window);
    for (std::size_t row = 0; row < plan.window; ++row) {
      SortedLines::replace(sorted, plan.window, all(__builtin_huge_val()),
                           SortedLines::sortable(load(tile + row * tile_columns + column)));
    }
  }
}

inline std::size_t quantile_tile_size(const Plan& plan) noexcept {
  return (2 * plan.window + 2) * tile_columns;
}

inline constexpr TileLoops quantile_loops{1, quantile_tile_size, advance_quantile,
                                          rebuild_quantile};

}  // namespace quernbrook::row_kernels::QUERNBROOK_INSTRUCTION_SET
