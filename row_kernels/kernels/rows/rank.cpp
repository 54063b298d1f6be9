#include <cmath>
#include <cstddef>
#include <memory>

#include "instruction_sets.hpp"
#include "kernels/row_sorter.hpp"
#include "nan.hpp"
#include "rows/across_function.hpp"
#include "rows/narrow_rank.hpp"
#include "rows/rows.hpp"

namespace quernbrook::row_kernels {
namespace {

QUERNBROOK_WIDEST_REGISTERS void divide_places(double* ranks, std::size_t count) noexcept {
  const auto divisor = static_cast<double>(count - 1);
  for (std::size_t place = 0; place < count; ++place) {
    ranks[place] = static_cast<double>(static_cast<std::ptrdiff_t>(place)) / divisor;
  }
}

class Rank {
 public:
  Rank(std::size_t columns, double lone)
      : columns_(columns),
        lone_(lone),
        sorter_(columns),
        ranks_(std::make_unique_for_overwrite<double[]>(columns)) {}

  void operator()(const double* row, double* result) {
    const bool all_differ = sorter_.sort_with_ties(row, result);
    fill_ranks(sorter_.count());
    const std::size_t low = sorter_.negative_infinities();
    const std::size_t high = low + sorter_.finite();
    if (low > 1) {
      share_rank(0, low, result);
    } else if (low == 1) {
      result[sorter_.column(0)] = ranks_[0];
    }
    if (all_differ) {
      for (std::size_t place = low; place < high; ++place) {
        result[sorter_.column(place)] = ranks_[place];
      }
    } else {
      rank_with_ties(row, low, high, result);
    }
    // Positive infinities stand among the NaN cells.
    const double highest = high < sorter_.count() ? shared_rank(high, sorter_.count()) : nan;
    for (std::size_t place = high; place < columns_; ++place) {
      const std::size_t column = sorter_.column(place);
      result[column] = is_nan(row[column]) ? nan : highest;
    }
  }

 private:
  void rank_with_ties(const double* row, std::size_t place, std::size_t end, double* result) {
    while (place < end) {
      const double value = row[sorter_.column(place)];
      std::size_t next = place + 1;
      while (next < end && row[sorter_.column(next)] == value) ++next;
      if (next == place + 1) {
        result[sorter_.column(place)] = ranks_[place];
      } else {
        share_rank(place, next, result);
      }
      place = next;
    }
  }

  /// The average rank of the places from `first` to `end`.
  double shared_rank(std::size_t first, std::size_t end) const noexcept {
    if (sorter_.count() == 1) return lone_;
    const double place = static_cast<double>(first) + static_cast<double>(end - first - 1) / 2.0;
    return place / static_cast<double>(sorter_.count() - 1);
  }

  void share_rank(std::size_t first, std::size_t end, double* result) const noexcept {
    const double rank = shared_rank(first, end);
    for (std::size_t place = first; place < end; ++place) result[sorter_.column(place)] = rank;
  }

  void fill_ranks(std::size_t count) noexcept {
    if (count == ranked_) return;
    ranked_ = count;
    if (count == 1) {
      ranks_[0] = lone_;
    } else {
      divide_places(ranks_.get(), count);
    }
  }

  std::size_t columns_;
  double lone_;
  kernels::RowSorter sorter_;
  std::size_t ranked_ = 0;  // the count that `ranks_` stands for
  std::unique_ptr<double[]> ranks_;
};

class RankOfAnyWidth final : public RowFunction {
 public:
  explicit RankOfAnyWidth(double lone) : lone_(lone), wide_(make_across<Rank, 1>(lone)) {}

  std::size_t argument_count() const noexcept override { return 1; }

  void run(const Rows* arguments, std::ptrdiff_t row_count, std::ptrdiff_t column_count,
           double* result) override {
    const auto columns = static_cast<std::size_t>(column_count);
    if (columns > narrow) {
      wide_->run(arguments, row_count, column_count, result);
      return;
    }
    for (std::ptrdiff_t row = 0; row < row_count; ++row) {
      rank_narrow(arguments[0].row(row), lone_, result + row * column_count, columns);
    }
  }

 private:
  double lone_;
  std::unique_ptr<RowFunction> wide_;
};

}  // namespace

std::unique_ptr<RowFunction> make_rank(double lone) {
  return std::make_unique<RankOfAnyWidth>(lone);
}

}  // namespace quernbrook::row_kernels
