#pragma once

#include "time/loops/lanes.hpp"

namespace quernbrook::row_kernels::QUERNBROOK_INSTRUCTION_SET {

/// Rank of the newest value by counting. After the rows a tile holds a line with the number of rows
/// since the last NaN.
inline void advance_rank(const Plan& plan, double* tile, std::size_t columns, std::size_t place,
                         bool is_filling, const Rows* arguments, std::ptrdiff_t row_count,
                         double* result, std::ptrdiff_t result_stride) noexcept {
  const auto count = static_cast<double>(plan.window);
  for (std::size_t column = 0; column < columns; column += lane_count) {
    double* rows = tile + column;
    double* clean_rows = rows + plan.window * tile_columns;
    Lanes clean = is_filling && place == 0 ? Lanes{} : load(clean_rows);
    const double* next = arguments[0].first + column;
    double* target = result + column;
    std::size_t at = place;
    bool is_full = !is_filling;
    for (std::ptrdiff_t left = row_count; left > 0; --left) {
      const Lanes newest = load(next);
      fetch_ahead<0>(next);
      store(rows + at * tile_columns, newest);
      clean = select(newest == newest, clean + 1.0, Lanes{});
      if (++at == plan.window) {
        at = 0;
        is_full = true;
      }
      Lanes rank = all(__builtin_nan(""));
      if (is_full) {
        // Less those above, as each comparison gives -1 where it holds.
        Bits above{};
        Bits below{};
        const double* cells = rows;
        for (std::size_t row = 0; row < plan.window; ++row) {
          const Lanes other = load(cells);
          above += other > newest;
          below += other < newest;
          cells += tile_columns;
        }
        const Lanes less_above = __builtin_convertvector(above - below, Lanes);
        rank = select(clean >= count, 0.5 * (less_above + (count - 1.0)) / (count - 1.0), rank);
      }
      store(target, rank);
      fetch_ahead<1>(target);
      next += arguments[0].stride;
      target += result_stride;
    }
    store(clean_rows, clean);
  }
}

/// From the rows, of which there are NaN where there are none.
inline void count_clean_rows(const Plan& plan, double* tile, std::size_t place) noexcept {
  for (std::size_t column = 0; column < tile_columns; column += lane_count) {
    Lanes clean{};
    for (std::size_t row = 0; row < plan.window; ++row) {
      const Lanes cells = load(tile + (place + row) % plan.window * tile_columns + column);
      clean = select(cells == cells, clean + 1.0, Lanes{});
    }
    store(tile + plan.window * tile_columns + column, clean);
  }
}

inline std::size_t rank_tile_size(const Plan& plan) noexcept {
  return (plan.window + 1) * tile_columns;
}

inline constexpr TileLoops rank_loops{1, rank_tile_size, advance_rank, count_clean_rows};

}  // namespace quernbrook::row_kernels::QUERNBROOK_INSTRUCTION_SET
