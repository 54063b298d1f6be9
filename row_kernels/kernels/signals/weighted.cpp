#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <new>
#include <stdexcept>
#include <string>
#include <utility>

#include "nan.hpp"
#include "rows/sums.hpp"
#include "signals/row_sums.hpp"
#include "signals/signals.hpp"
#include "signals/statistics.hpp"

namespace quernbrook::row_kernels {
namespace {

/// What a signal's weight counts for in a turnover: nothing for NaN, the largest number for
/// infinity.
double countable(double weight) noexcept {
  constexpr double largest = std::numeric_limits<double>::max();
  return is_nan(weight) ? 0.0 : std::clamp(weight, -largest, largest);
}

class Weighted final : public WeightedFunction {
 public:
  Weighted(Statistic statistic, bool of_turnover, std::size_t window, bool invert)
      : statistic_(statistic), of_turnover_(of_turnover), window_(window), invert_(invert) {}

  bool needs_pnl() const noexcept override { return !of_turnover_; }
  bool holds_weights() const noexcept override { return of_turnover_; }
  std::size_t window() const noexcept override { return window_; }

  void run(const double* signals, std::ptrdiff_t signal_count, std::ptrdiff_t column_count,
           const double* pnl, double* result) override {
    const auto count = static_cast<std::size_t>(signal_count);
    const auto columns = static_cast<std::size_t>(column_count);
    reserve(count, columns);
    if (of_turnover_) {
      push_turnover(signals, count, columns);
    } else {
      push(pnl);
    }
    if (count_ < static_cast<std::int64_t>(window_) || count == 0) {
      std::fill_n(result, columns, nan);
      return;
    }
    put_rows_in_order();
    double* shares = shares_.data();
    statistic_(ordered_.data(), window_, count, scratch_.data(), shares);
    for (std::size_t signal = 0; signal < count; ++signal) {
      const bool positive = shares[signal] > 0.0;
      shares[signal] = !positive ? 0.0 : invert_ ? 1.0 / shares[signal] : shares[signal];
    }
    const double total = pairwise_sum(shares, count);
    if (total == 0.0) {
      sum_rows(signals, count, columns, result);
      divide_row(result, static_cast<double>(count), columns);
    } else {
      sum_shares(signals, shares, total, count, columns, result, scratch_.data());
    }
  }

  SignalState state() const override {
    SignalState state{count_, signal_count_, {}, held_columns_, held_};
    const std::size_t known = known_rows();
    state.rows.reserve(known * signal_count_);
    for (std::size_t row = 0; row < known; ++row) {
      const double* values = row_of(count_ - static_cast<std::int64_t>(known - row));
      state.rows.insert(state.rows.end(), values, values + signal_count_);
    }
    return state;
  }

  void restore(SignalState state) override {
    require_room(state.signal_count);
    std::vector<double> rows(window_ * state.signal_count);
    const std::size_t known = std::min(window_, static_cast<std::size_t>(state.count));
    for (std::size_t row = 0; row < known; ++row) {
      const auto number = static_cast<std::size_t>(state.count) - known + row;
      std::copy_n(state.rows.data() + row * state.signal_count, state.signal_count,
                  rows.data() + number % window_ * state.signal_count);
    }
    rows_ = std::move(rows);
    count_ = state.count;
    signal_count_ = state.signal_count;
    held_ = std::move(state.held);
    held_columns_ = state.held_columns;
    shares_.clear();
  }

 private:
  std::size_t known_rows() const noexcept {
    return std::min(window_, static_cast<std::size_t>(count_));
  }

  const double* row_of(std::int64_t number) const noexcept {
    return rows_.data() + static_cast<std::size_t>(number) % window_ * signal_count_;
  }

  /// Throws std::bad_alloc where even the number of values in a window and a row can't be held.
  void require_room(std::size_t count) const {
    if (count > 0 && window_ >= rows_.max_size() / count) throw std::bad_alloc();
  }

  /// Takes all memory that a row needs before anything changes that the next one would go by.
  void reserve(std::size_t count, std::size_t columns) {
    if (count_ > 0 && count != signal_count_) {
      throw std::invalid_argument("row has " + std::to_string(count) +
                                  " values; the window holds rows of " +
                                  std::to_string(signal_count_));
    }
    require_room(count);
    if (of_turnover_) {
      if (count_ == 0 || held_.empty()) {
        held_.assign(count * columns, 0.0);
      } else if (columns != held_columns_) {
        throw std::invalid_argument("signals have " + std::to_string(columns) +
                                    " weights; those of the row before had " +
                                    std::to_string(held_columns_));
      }
      held_columns_ = columns;
    }
    rows_.resize(window_ * count);
    ordered_.resize(window_ * count);
    scratch_.resize((window_ + 1) * count);
    shares_.resize(count);
    signal_count_ = count;
  }

  void push(const double* values) noexcept {
    std::copy_n(values, signal_count_,
                rows_.data() + static_cast<std::size_t>(count_) % window_ * signal_count_);
    ++count_;
  }

  void push_turnover(const double* signals, std::size_t count, std::size_t columns) {
    std::vector<double> changes(columns);
    for (std::size_t signal = 0; signal < count; ++signal) {
      double* held = held_.data() + signal * columns;
      for (std::size_t column = 0; column < columns; ++column) {
        const double weight = countable(signals[signal * columns + column]);
        changes[column] = std::fabs(weight - held[column]);
        held[column] = weight;
      }
      shares_[signal] = pairwise_sum(changes.data(), columns);
    }
    push(shares_.data());
  }

  /// Statistics see the oldest row first, wherever the ring stands.
  void put_rows_in_order() noexcept {
    const std::size_t start = static_cast<std::size_t>(count_) % window_ * signal_count_;
    std::rotate_copy(rows_.begin(), rows_.begin() + static_cast<std::ptrdiff_t>(start), rows_.end(),
                     ordered_.begin());
  }

  Statistic statistic_;
  bool of_turnover_;
  std::size_t window_;
  bool invert_;
  std::int64_t count_ = 0;
  std::size_t signal_count_ = 0;
  std::vector<double> rows_;  // a ring of `window_` rows of one value for each signal
  std::size_t held_columns_ = 0;
  std::vector<double> held_;  // the weights of the row before, where turnover is measured
  std::vector<double> ordered_;
  std::vector<double> scratch_;
  std::vector<double> shares_;
};

struct NamedStatistic {
  std::string_view name;
  Statistic statistic;
  bool of_turnover;
};

constexpr std::array<NamedStatistic, 6> statistics = {{
    {"vol", deviation, false},
    {"downside_vol", downside_deviation, false},
    {"sharpe", sharpe, false},
    {"sortino", sortino, false},
    {"turnover", mean, true},
    {"pnl", mean, false},
}};

}  // namespace

std::unique_ptr<WeightedFunction> make_weighted(std::string_view statistic, std::size_t window,
                                                bool invert) {
  const auto* const found =
      std::find_if(statistics.begin(), statistics.end(),
                   [=](const NamedStatistic& known) { return known.name == statistic; });
  if (found == statistics.end()) {
    throw std::invalid_argument("unknown statistic '" + std::string(statistic) + "'");
  }
  return std::make_unique<Weighted>(found->statistic, found->of_turnover, window, invert);
}

}  // namespace quernbrook::row_kernels
