#pragma once

#include <vector>

#include "expression_evaluator/run/run_state.hpp"
#include "kernels/column_mean.hpp"

namespace quernbrook::evaluation {

/// The rows of weights and PnL of a reduction's signals, found once for many rows.
class PoolRows {
 public:
  /// Finds the matrices of the signals that pass the node's filter, which must be resolved. False
  /// where code of the host's may have a part in reading them, or a row of them may fail.
  bool bind(Run& run, graph_prep::NodeIndex reduction, bool with_pnl);

  /// Reads a row of all signals.
  void read(npy_intp row);

  npy_intp count() const noexcept { return static_cast<npy_intp>(weights_.size()); }
  /// The rows of weights, of shape (count(), N_alloc).
  const double* weights() const noexcept { return block_.data(); }
  /// The same as a new array.
  Object block() const;
  /// A value for each signal; null where bind() was told so.
  const double* pnl() const noexcept { return with_pnl_ ? pnl_row_.data() : nullptr; }
  /// The mean of the signals; false where NumPy's own has the say.
  bool mean(double* result);

 private:
  bool bind_weights(Run& run, std::span<PyObject* const> ids);
  bool bind_pnl(Run& run, const graph_prep::Node& node, std::span<PyObject* const> ids);

  std::vector<Object> matrices_;  // whose cells are read
  std::vector<kernels::MatrixView> weights_;
  std::vector<kernels::MatrixView> pnl_;  // without cells where a signal has none
  npy_intp pnl_column_ = 0;
  bool with_pnl_ = false;
  std::vector<double> pnl_row_;
  std::vector<double> block_;
  npy_intp columns_ = 0;
  kernels::ColumnMean sums_;
};

}  // namespace quernbrook::evaluation
