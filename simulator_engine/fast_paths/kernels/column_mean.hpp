#pragma once

#include <cstddef>
#include <vector>

namespace quernbrook::kernels {

/// The mean of every column of a C-ordered (rows, columns) block, with at least one row and two
/// columns: the rows are added in their order to zero and the sums divided by their number.
///
/// The rows may be added while they are at hand, some at a time.
class ColumnMean {
 public:
  /// Forgets the rows added before.
  void begin(std::size_t columns);
  void add(const double* rows, std::size_t count) noexcept;
  /// To be called after the last rows, before anything else computes with floating point.
  void end() noexcept;

  /// Returns false where the bits or the floating-point warnings would depend on how the additions
  /// are carried out: after an overflow, an invalid operation or an underflow, and where NaNs of
  /// different payloads meet. The result is not valid then.
  ///
  /// `block` holds the `rows` rows that were added.
  bool divide(const double* block, std::size_t rows, double* result) const noexcept;

 private:
  std::vector<double> sums_;
  bool met_exception_ = false;
};

}  // namespace quernbrook::kernels
