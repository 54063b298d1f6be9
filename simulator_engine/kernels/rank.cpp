#include "kernels/rank.hpp"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <vector>

#include "kernels/row_sorter.hpp"
#include "kernels/universe_mask.hpp"

namespace quernbrook::kernels {
namespace {

constexpr double nan = std::numeric_limits<double>::quiet_NaN();

constexpr double lone_rank = 0.5;

constexpr std::size_t cells_between_pauses = 32 * 1024;

// The rising ranks for the counts met last. The counts of a matrix lie close together, and to
// divide anew for every row would cost as much as a pass of the sort.
class RankTables {
 public:
  explicit RankTables(std::size_t columns)
      : stride_(columns + 1),
        counts_(std::clamp(budget / stride_, std::size_t{1}, std::size_t{128})),
        ranks_(counts_.size() * stride_) {}

  const double* of(std::size_t count) noexcept {
    const std::size_t slot = count % counts_.size();
    double* ranks = ranks_.data() + slot * stride_;
    if (counts_[slot] != count) {
      counts_[slot] = count;
      fill(ranks, count);
    }
    return ranks;
  }

 private:
  static constexpr std::size_t budget = 64 * 1024;  // half of a common second-level cache

  // Two at a time, and one too many where the count is odd.
  static void fill(double* ranks, std::size_t count) noexcept {
    using Pair [[gnu::vector_size(16)]] = double;
    const auto divisor = static_cast<double>(count - 1);
    Pair places = {0.0, 1.0};
    for (std::size_t place = 0; place < count; place += 2) {
      const Pair quotients = places / divisor;
      std::memcpy(ranks + place, &quotients, sizeof quotients);
      places += 2.0;
    }
    if (count == 1) ranks[0] = lone_rank;
  }

  std::size_t stride_;
  std::vector<std::size_t> counts_;
  std::vector<double> ranks_;
};

void write_ranks(const RowSorter& sorter, const double* ranks, const double* cells, double* result,
                 std::size_t columns) noexcept {
  const std::size_t count = sorter.count();
  if (sorter.has_positive_infinity()) {
    // They stand among the NaN cells, so that places may reach beyond the table.
    for (std::size_t place = 0; place < columns; ++place) {
      const std::size_t column = sorter.column(place);
      const double rank =
          count == 1 ? lone_rank : static_cast<double>(place) / static_cast<double>(count - 1);
      result[column] = std::isnan(cells[column]) ? nan : rank;
    }
    return;
  }
  for (std::size_t place = 0; place < count; ++place) result[sorter.column(place)] = ranks[place];
  for (std::size_t place = count; place < columns; ++place) result[sorter.column(place)] = nan;
}

}  // namespace

bool rank_rows(const MatrixView& data, const MatrixView& universe, double* result,
               const Pause& pause) {
  const auto columns = static_cast<std::size_t>(data.columns);
  const bool is_masked = universe.cells != nullptr;
  RowSorter sorter(columns);
  RankTables tables(columns);
  std::vector<double> copy(is_masked || data.column_stride != 1 ? columns : 0);
  std::size_t cells_since_pause = 0;
  for (std::ptrdiff_t row = 0; row < data.rows; ++row) {
    const double* cells = copy.data();
    if (is_masked) {
      mask_universe(data.row(row), universe.row(row), copy.data());
    } else if (data.column_stride != 1) {
      copy_row(data.row(row), copy.data());
    } else {
      cells = data.row(row).cells;
    }
    if (!sorter.sort(cells, result)) return false;
    write_ranks(sorter, tables.of(sorter.count()), cells, result, columns);
    result += columns;
    cells_since_pause += columns;
    if (cells_since_pause >= cells_between_pauses) {
      pause();
      cells_since_pause = 0;
    }
  }
  return true;
}

}  // namespace quernbrook::kernels
