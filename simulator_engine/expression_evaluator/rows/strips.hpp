#pragma once

#include <map>
#include <memory>
#include <optional>
#include <vector>

#include "expression_evaluator/rows/registers.hpp"
#include "expression_evaluator/rows/strip_plan.hpp"
#include "expression_evaluator/signals/pool_rows.hpp"
#include "python/error.hpp"
#include "python/gil.hpp"

namespace quernbrook::evaluation {

/// Computes the nodes of a plan a strip of rows at a time.
class Strips {
 public:
  Strips(Run& run, const Registers& registers, RotationStep& rotations,
         const RowFunctions& functions, const StripPlan& plan);

  /// Finds the matrices of leaves and signals as things are now; false where one can't be read
  /// without the host's code.
  bool bind();
  /// Computes `count` rows from `first` on. Outputs that are collected, and the root's, go where
  /// they belong; after the last row of all, each node's stands in its register.
  void compute(npy_intp first, npy_intp count);

  /// The first row that failed, in the order of rows and then of nodes, and at which node.
  bool has_failed() const noexcept { return !exception_.empty(); }
  npy_intp failed_row() const noexcept { return failed_row_; }
  graph_prep::NodeIndex failed_node() const noexcept { return failed_node_; }
  [[noreturn]] void raise_failure() { python::raise_taken(exception_); }

  /// Leaves the run's buffer as the last extraction of a row would.
  void keep_extraction() const;

  /// A row of the last strip.
  const double* row_of(graph_prep::NodeIndex node, npy_intp row) const noexcept {
    return rows_[node].first + (row - first_) * rows_[node].stride;
  }

 private:
  struct Leaf {
    Object feature;
    kernels::MatrixView view;
    bool is_converted = false;  // NumPy makes doubles of its cells
  };

  bool bind_leaf(const StripStep& step);
  double* target_of(const StripStep& step);
  void run_leaf(const StripStep& step, npy_intp count, double* target);
  void run_kernel(const StripStep& step, npy_intp& count, double* target);
  void run_block(const StripStep& step, npy_intp& count, double* target);
  void run_reduction(const StripStep& step, npy_intp& count, double* target);
  void run_rows(const StripStep& step, npy_intp& count, double* target);
  Object block_of(graph_prep::NodeIndex source, npy_intp count) const;
  void let_marks_climb(const StripStep& step, npy_intp count, double* target);
  void keep_joined_rows(double* registers) const;
  template <class Failing>
  void remember(const StripStep& step, npy_intp row, Failing&& failing);

  Run& run_;
  const Registers& registers_;
  RotationStep& rotations_;
  const RowFunctions& functions_;
  const StripPlan& plan_;
  std::unique_ptr<double[]> buffers_;
  std::vector<double> constants_;      // a row for each constant step
  std::vector<quernbrook_rows> rows_;  // by node, of the strip under way
  std::vector<quernbrook_rows> arguments_;
  std::vector<Leaf> leaves_;                         // by node
  std::map<graph_prep::NodeIndex, PoolRows> pools_;  // of reductions
  Object universe_matrix_;                           // or empty
  kernels::MatrixView universe_;
  npy_intp first_ = 0;  // row of the strip
  std::optional<python::GilRelease> without_gil_;
  Object exception_;
  npy_intp failed_row_ = 0;
  graph_prep::NodeIndex failed_node_ = graph_prep::no_node;
};

}  // namespace quernbrook::evaluation
