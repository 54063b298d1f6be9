#pragma once

#include <vector>

#include "kernels/matrix_view.hpp"

namespace quernbrook::kernels {

/// The mean of every column of a C-ordered block, with at least one row and two columns: the rows
/// are added in their order to zero and the sums divided by their number.
class ColumnMean {
 public:
  /// Returns false where the bits or the floating-point warnings would depend on how the additions
  /// are carried out: after an overflow, an invalid operation or an underflow, and where NaNs of
  /// different payloads meet. The result is not valid then.
  bool mean(const MatrixView& block, double* result);

 private:
  std::vector<double> sums_;
};

}  // namespace quernbrook::kernels
