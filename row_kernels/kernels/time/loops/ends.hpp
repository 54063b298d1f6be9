#pragma once

#include "time/loops/block_loops.hpp"

namespace quernbrook::row_kernels::QUERNBROOK_INSTRUCTION_SET {

/// The oldest of the rows held.
struct Delay {
  static constexpr std::size_t arguments = 1;
  static Lanes of(const Cells<1>&, const Cells<1>& oldest) noexcept { return oldest.of[0]; }
};

/// The newest row less the oldest.
struct Delta {
  static constexpr std::size_t arguments = 1;
  static Lanes of(const Cells<1>& newest, const Cells<1>& oldest) noexcept {
    return newest.of[0] - oldest.of[0];
  }
};

/// The correlation of two rows: exactly 1 or -1 as both arguments go the same way, NaN where one
/// stays or isn't finite.
struct Concordance {
  static constexpr std::size_t arguments = 2;
  static Lanes of(const Cells<2>& newest, const Cells<2>& oldest) noexcept {
    const Bits both_rise = (newest.of[0] > oldest.of[0]) == (newest.of[1] > oldest.of[1]);
    const Bits is_defined = (newest.of[0] != oldest.of[0]) & (newest.of[1] != oldest.of[1]) &
                            is_finite(newest.of[0]) & is_finite(newest.of[1]) &
                            is_finite(oldest.of[0]) & is_finite(oldest.of[1]);
    return select(is_defined, select(both_rise, all(1.0), all(-1.0)), all(__builtin_nan("")));
  }
};

template <class Ends>
void advance_ends(const Plan& plan, double* tile, std::size_t columns, std::size_t place,
                  bool is_filling, const Rows* arguments, std::ptrdiff_t row_count, double* result,
                  std::ptrdiff_t result_stride) noexcept {
  constexpr std::size_t count = Ends::arguments;
  const double* next[count];
  for (std::size_t a = 0; a < count; ++a) next[a] = arguments[a].first;
  for (; row_count > 0; --row_count) {
    double* newest = tile + place * count * tile_columns;
    if (++place == plan.window) {
      place = 0;
      is_filling = false;
    }
    const double* oldest = tile + place * count * tile_columns;
    for (std::size_t a = 0; a < count; ++a) fetch_ahead<0>(next[a]);
    fetch_ahead<1>(result);
    for (std::size_t column = 0; column < columns; column += lane_count) {
      Cells<count> cells;
      for (std::size_t a = 0; a < count; ++a) cells.of[a] = load(next[a] + column);
      store_fields(newest + column, cells);
      store(result + column, is_filling
                                 ? all(__builtin_nan(""))
                                 : Ends::of(cells, load_fields<Cells<count>>(oldest + column)));
    }
    for (std::size_t a = 0; a < count; ++a) next[a] += arguments[a].stride;
    result += result_stride;
  }
}

template <class Ends>
std::size_t size_of_rows(const Plan& plan) noexcept {
  return plan.window * Ends::arguments * tile_columns;
}

template <class Ends>
void rebuild_nothing(const Plan&, double*, std::size_t) noexcept {}

template <class Ends>
inline constexpr TileLoops end_loops{Ends::arguments, size_of_rows<Ends>, advance_ends<Ends>,
                                     rebuild_nothing<Ends>};

}  // namespace quernbrook::row_kernels::QUERNBROOK_INSTRUCTION_SET
