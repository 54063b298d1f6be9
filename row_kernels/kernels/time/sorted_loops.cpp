#include "time/sorted_loops.hpp"

#include <algorithm>
#include <cmath>
#include <limits>

#include "time/sorted_range.hpp"

namespace quernbrook::row_kernels {
namespace {

constexpr double nan = std::numeric_limits<double>::quiet_NaN();

struct Rank {
  explicit Rank(const Plan& plan) noexcept : last(plan.window - 1), margin(plan.window) {}

  double of(const SortedRange& range, double newest) const noexcept {
    const double twice =
        static_cast<double>(range.count_below(newest) + range.count_up_to(newest)) - 1.0;
    return 0.5 * twice / static_cast<double>(last);
  }

  std::size_t first = 0;
  std::size_t last;
  std::size_t margin;
};

struct Quantile {
  explicit Quantile(const Plan& plan) noexcept {
    const double position = plan.factor * static_cast<double>(plan.window - 1);
    first = static_cast<std::size_t>(position);
    share = position - static_cast<double>(first);
    last = share > 0.0 ? first + 1 : first;
    // A narrow range is seldom hit, a wide one seldom left.
    margin = std::max<std::size_t>(32, plan.window / 8);
  }

  double of(const SortedRange& range, double) const noexcept {
    const double lower = range.value(first);
    const double upper = range.value(last);
    if (lower == upper) return lower;
    const double distance = upper - lower;
    return share < 0.5 ? lower + distance * share : upper - distance * (1.0 - share);
  }

  std::size_t first;
  std::size_t last;
  std::size_t margin;
  double share;
};

SortedRange range_of(const Plan& plan, double* tile, std::size_t column) noexcept {
  double* ranges = tile + plan.window * tile_columns;
  return {ranges + column * SortedRange::memory_size(plan.window), plan.window};
}

std::size_t tile_size(const Plan& plan) {
  return tile_columns * (plan.window + SortedRange::memory_size(plan.window));
}

template <class Statistic>
void advance(const Plan& plan, double* tile, std::size_t columns, std::size_t place,
             bool is_filling, const Rows* arguments, std::ptrdiff_t row_count, double* result,
             std::ptrdiff_t result_stride) {
  const Statistic statistic(plan);
  for (std::size_t column = 0; column < columns; ++column) {
    SortedRange range = range_of(plan, tile, column);
    if (is_filling && place == 0) range.clear();
    double* rows = tile + column;
    const double* next = arguments[0].first + column;
    double* target = result + column;
    std::size_t at = place;
    for (std::ptrdiff_t left = row_count; left > 0; --left) {
      const double newest = *next;
      double& cell = rows[at * tile_columns];
      const double oldest = cell;
      cell = newest;
      range.replace(oldest, newest, rows, tile_columns, statistic.first, statistic.last,
                    statistic.margin);
      *target = range.is_valid() ? statistic.of(range, newest) : nan;
      if (++at == plan.window) at = 0;
      next += arguments[0].stride;
      target += result_stride;
    }
  }
}

template <class Statistic>
void rebuild(const Plan& plan, double* tile, std::size_t place) {
  const Statistic statistic(plan);
  for (std::size_t column = 0; column < tile_columns; ++column) {
    const double* rows = tile + column;
    std::size_t clean_rows = 0;
    for (std::size_t row = 0; row < plan.window; ++row) {
      const double cell = rows[(place + row) % plan.window * tile_columns];
      clean_rows = std::isnan(cell) ? 0 : clean_rows + 1;
    }
    range_of(plan, tile, column)
        .rebuild(clean_rows, rows, tile_columns, statistic.first, statistic.last, statistic.margin);
  }
}

}  // namespace

const TileLoops sorted_rank_loops{1, tile_size, advance<Rank>, rebuild<Rank>};
const TileLoops sorted_quantile_loops{1, tile_size, advance<Quantile>, rebuild<Quantile>};

}  // namespace quernbrook::row_kernels
