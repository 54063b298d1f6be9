#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

namespace quernbrook::row_kernels {

/// A function that makes one row of `column_count` cells of the weights of signals, a C-ordered
/// block of shape (signal_count, column_count), and of their PnL, `signal_count` values, which only
/// functions that need it look at. The result overlaps neither.
class SignalFunction {
 public:
  virtual ~SignalFunction() = default;
  virtual bool needs_pnl() const noexcept = 0;
  virtual void run(const double* signals, std::ptrdiff_t signal_count, std::ptrdiff_t column_count,
                   const double* pnl, double* result) = 0;
};

/// The plain mean over the signals; NaN without any.
std::unique_ptr<SignalFunction> make_signal_mean();

/// What a weighted function remembers: how many rows it has seen, the newest min(count, window) of
/// them, one value for each signal, oldest first; and the last block of weights, of a function that
/// compares blocks and has seen one.
struct SignalState {
  std::int64_t count = 0;
  std::size_t signal_count = 0;
  std::vector<double> rows;
  std::size_t held_columns = 0;
  std::vector<double> held;
};

/// A mean over the signals in which each has a share in proportion to a statistic of its last
/// `window` values, or to the reciprocal of that. One whose statistic is NaN, zero or negative has
/// no share; when none has one, the result is the plain mean. NaN until the window is full.
class WeightedFunction : public SignalFunction {
 public:
  virtual std::size_t window() const noexcept = 0;
  virtual bool holds_weights() const noexcept = 0;
  virtual SignalState state() const = 0;
  virtual void restore(SignalState state) = 0;
};

/// `statistic` is "vol" or "downside_vol", "sharpe" or "sortino", "turnover", or "pnl". Throws
/// std::invalid_argument for any other.
std::unique_ptr<WeightedFunction> make_weighted(std::string_view statistic, std::size_t window,
                                                bool invert);

}  // namespace quernbrook::row_kernels
