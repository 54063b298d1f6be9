#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace quernbrook::row_kernels {

/// Rows of one argument: row r begins at `first + r * stride`; a stride of 0 means one row for all.
struct Rows {
  const double* first;
  std::ptrdiff_t stride;

  const double* row(std::ptrdiff_t r) const noexcept { return first + r * stride; }
};

/// A function of rows, for one thread at a time.
class RowFunction {
 public:
  virtual ~RowFunction() = default;

  virtual std::size_t argument_count() const noexcept = 0;

  /// Computes `row_count` rows of `column_count` cells from as many rows of each argument. `result`
  /// is C-ordered and overlaps no argument. Rows give the same bits however they are cut into
  /// calls.
  ///
  /// Throws std::invalid_argument for a width other than that of the rows it holds. That and
  /// std::bad_alloc leave it unchanged.
  virtual void run(const Rows* arguments, std::ptrdiff_t row_count, std::ptrdiff_t column_count,
                   double* result) = 0;
};

/// What a windowed function remembers: how many rows it has seen, and the newest of them.
struct WindowState {
  std::int64_t count = 0;
  std::ptrdiff_t column_count = 0;
  /// For each argument its min(count, capacity) newest rows, oldest first, as one C-ordered block.
  std::vector<std::vector<double>> rows;
};

/// A function of the newest rows. It gives the same bits whether it went on or was restored.
class WindowFunction : public RowFunction {
 public:
  virtual std::size_t window() const noexcept = 0;

  /// The number of rows it remembers.
  virtual std::size_t capacity() const noexcept = 0;

  virtual WindowState state() const = 0;

  /// Goes on where `state` was taken. Throws std::invalid_argument for a state that doesn't fit;
  /// that and std::bad_alloc leave it unchanged.
  virtual void restore(const WindowState& state) = 0;
};

}  // namespace quernbrook::row_kernels
