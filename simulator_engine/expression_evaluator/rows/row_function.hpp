#pragma once

#include <span>
#include <vector>

#include "expression_evaluator/run/run_state.hpp"
#include "quernbrook/row_kernel.h"

// Functions whose types opt in to more than calls with one row.
namespace quernbrook::evaluation {

/// A row kernel or a reduction kernel, held for the run; empty for a function that offers none.
template <class Structure>
class Kernel {
 public:
  Kernel() = default;
  Kernel(Object capsule, const Structure& structure)
      : capsule_(std::move(capsule)), structure_(structure) {}

  bool empty() const noexcept { return capsule_.empty(); }
  const Structure& operator*() const noexcept { return structure_; }
  const Structure* operator->() const noexcept { return &structure_; }

 private:
  Object capsule_;
  Structure structure_{};
};

using RowKernel = Kernel<quernbrook_row_kernel>;
using ReductionKernel = Kernel<quernbrook_reduction_kernel>;

/// What the type of a function's instance offers.
struct RowFunction {
  RowKernel kernel;
  ReductionKernel reduction;
  Object block;  // the bound method that takes blocks of rows, or empty
};

/// Asks the types of all function instances, once a run.
class RowFunctions {
 public:
  explicit RowFunctions(const Run& run);

  const RowFunction& of(graph_prep::NodeIndex node) const noexcept { return functions_[node]; }
  bool any() const noexcept { return any_; }

 private:
  std::vector<RowFunction> functions_;  // by node
  bool any_ = false;
};

/// Raises FunctionExecutionError for what a kernel told of a row, with an exception of that kind as
/// its cause. `first` is the row of the call's first, `count` how many it had.
[[noreturn]] void raise_kernel_failure(const Run& run, graph_prep::NodeIndex node,
                                       const quernbrook_failure& failure, npy_intp first,
                                       npy_intp count);

}  // namespace quernbrook::evaluation
