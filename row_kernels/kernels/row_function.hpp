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

/// A function of rows. `run` computes `row_count` rows of `column_count` cells; `result` is
/// C-ordered and overlaps no argument. Throws std::invalid_argument for a width other than that of
/// the rows it holds. std::bad_alloc leaves it unchanged.
class RowFunction {
 public:
  virtual ~RowFunction() = default;
  virtual std::size_t argument_count() const noexcept = 0;
  virtual void run(const Rows* arguments, std::ptrdiff_t row_count, std::ptrdiff_t column_count,
                   double* result) = 0;
};

/// What a windowed function remembers: how many rows it has seen, and the newest of them,
/// min(count, capacity) rows of each argument, oldest first.
struct WindowState {
  std::int64_t count = 0;
  std::ptrdiff_t column_count = 0;
  std::vector<std::vector<double>> rows; /* per argument: C-ordered block */
};

class WindowFunction : public RowFunction {
 public:
  virtual std::size_t window() const noexcept = 0;
  virtual std::size_t capacity() const noexcept = 0;
  virtual WindowState state() const = 0;
  virtual void restore(const WindowState& state) = 0;
};

}  // namespace quernbrook::row_kernels
