#pragma once

#include "time/loops/lanes.hpp"

namespace quernbrook::row_kernels::QUERNBROOK_INSTRUCTION_SET {

/// The oldest of the rows held.
struct Delay {
  static Lanes of(Lanes, Lanes oldest) noexcept { return oldest; }
};

/// The newest row less the oldest.
struct Delta {
  static Lanes of(Lanes newest, Lanes oldest) noexcept { return newest - oldest; }
};

template <class Ends>
void advance_ends(const Plan& plan, double* tile, std::size_t columns, std::size_t place,
                  bool is_filling, const Rows* arguments, std::ptrdiff_t row_count, double* result,
                  std::ptrdiff_t result_stride) noexcept {
  const double* next = arguments[0].first;
  for (; row_count > 0; --row_count) {
    double* newest = tile + place * tile_columns;
    if (++place == plan.window) {
      place = 0;
      is_filling = false;
    }
    const double* oldest = tile + place * tile_columns;
    fetch_ahead<0>(next);
    fetch_ahead<1>(result);
    for (std::size_t column = 0; column < columns; column += lane_count) {
      const Lanes cells = load(next + column);
      store(newest + column, cells);
      const Lanes end = is_filling ? all(__builtin_nan("")) : load(oldest + column);
      store(result + column, Ends::of(cells, end));
    }
    next += arguments[0].stride;
    result += result_stride;
  }
}

inline std::size_t size_of_rows(const Plan& plan) noexcept { return plan.window * tile_columns; }

inline void rebuild_nothing(const Plan&, double*, std::size_t) noexcept {}

template <class Ends>
inline constexpr TileLoops end_loops{1, size_of_rows, advance_ends<Ends>, rebuild_nothing};

}  // namespace quernbrook::row_kernels::QUERNBROOK_INSTRUCTION_SET
