#include "expression_evaluator/rows/strips.hpp"

#include <algorithm>
#include <cstring>
#include <limits>
#include <memory>

#include "expression_evaluator/rows/function_output.hpp"
#include "expression_evaluator/rows/leaf_step.hpp"
#include "expression_evaluator/signals/extraction_buffer.hpp"
#include "kernels/universe_mask.hpp"
#include "python/array.hpp"
#include "python/call.hpp"
#include "python/containers.hpp"
#include "python/dict_insides.hpp"
#include "python/error.hpp"
#include "python/numbers.hpp"
#include "python/protocol.hpp"
#include "python/text.hpp"

namespace quernbrook::evaluation {

using namespace python;
using graph_prep::NodeIndex;
using Kind = StripStep::Kind;

namespace {

constexpr double nan = std::numeric_limits<double>::quiet_NaN();

/// Below, giving up the interpreter's lock takes longer than the strip.
constexpr npy_intp worth_a_release = 32 * 1024;

}  // namespace

Strips::Strips(Run& run, const Registers& registers, RotationStep& rotations,
               const RowFunctions& functions, const StripPlan& plan)
    : run_(run),
      registers_(registers),
      rotations_(rotations),
      functions_(functions),
      plan_(plan),
      rows_(run.table.nodes.size()),
      leaves_(run.table.nodes.size()) {
  const auto columns = static_cast<std::size_t>(run.columns);
  // Without columns, too, kernels get pointers that are not null.
  buffers_ = std::make_unique_for_overwrite<double[]>(
      plan.buffer_count() * static_cast<std::size_t>(plan.rows_at_once()) * columns + 1);
  constants_.reserve(1);
  for (const StripStep& step : plan.steps()) {
    if (step.kind == Kind::constant) constants_.insert(constants_.end(), columns, step.constant);
  }
  const double* constant = constants_.data();
  for (const StripStep& step : plan.steps()) {
    if (step.kind != Kind::constant) continue;
    rows_[step.node] = {constant, 0};
    constant += columns;
  }
}

bool Strips::bind() {
  PyObject* name = run_.space.names.universe;
  if (!has_plain_attribute(type_of(run_.context), name)) return false;
  const auto is_readable = [this](PyObject* matrix) {
    return is_double_matrix(matrix) && dimension(matrix, 0) >= run_.rows &&
           dimension(matrix, 1) == run_.columns;
  };
  universe_matrix_ = attribute(run_.context, name);
  universe_ = {};
  if (!universe_matrix_.is_none()) {
    if (!is_readable(universe_matrix_)) return false;
    universe_ = view_of(universe_matrix_);
  }
  return std::ranges::all_of(plan_.steps(), [&](const StripStep& step) {
    if (step.kind == Kind::leaf) return bind_leaf(step);
    const bool is_reduction = step.kind == Kind::reduction;
    if (!is_reduction && step.kind != Kind::mean) return true;
    return pools_[step.node].bind(run_, step.node, is_reduction);
  });
}

bool Strips::bind_leaf(const StripStep& step) {
  Object feature = Object::borrow(plain_feature(run_, run_.table.nodes[step.node]));
  if (feature.empty() || !is_number_matrix(feature) || dimension(feature, 0) < run_.rows ||
      dimension(feature, 1) != run_.columns) {
    return false;
  }
  const bool is_converted = !is_double_matrix(feature);
  // The universe's mask is NumPy's business in other types.
  if (is_converted && universe_.cells != nullptr) return false;
  const kernels::MatrixView view = is_converted ? kernels::MatrixView{} : view_of(feature);
  const bool is_read_where_it_lies = !is_converted && universe_.cells == nullptr &&
                                     view.column_stride == 1 &&
                                     !run_.data_nan.is_marked(step.node, 0);
  const bool has_target = step.buffer != StripStep::no_buffer || !run_.node_outputs.empty() ||
                          step.node == run_.table.root;
  leaves_[step.node] = {std::move(feature), view, is_converted};
  return is_read_where_it_lies || has_target;
}

void Strips::compute(npy_intp first, npy_intp count) {
  first_ = first;
  double* const registers = registers_.row(0);  // the lock may be gone when they are written
  const auto columns = static_cast<std::size_t>(run_.columns);
  const bool is_large =
      count * run_.columns * static_cast<npy_intp>(plan_.steps().size()) >= worth_a_release;
  for (const StripStep& step : plan_.steps()) {
    if (count == 0) break;
    if (is_large && step.kind != Kind::block && !without_gil_) without_gil_.emplace();
    double* target = target_of(step);
    switch (step.kind) {
      case Kind::leaf:
        run_leaf(step, count, target);
        break;
      case Kind::constant:
        if (target != nullptr) std::fill_n(target, count * run_.columns, step.constant);
        break;
      case Kind::kernel:
        run_kernel(step, count, target);
        break;
      case Kind::block:
        without_gil_.reset();
        run_block(step, count, target);
        break;
      case Kind::reduction:
      case Kind::mean:
        run_reduction(step, count, target);
        break;
    }
    if (step.kind != Kind::leaf && step.kind != Kind::constant) {
      rows_[step.node] = {target, run_.columns};
      if (run_.data_nan.tracks()) let_marks_climb(step, count, target);
    }
    if (first + count == run_.rows) {
      std::copy_n(row_of(step.node, run_.rows - 1), run_.columns, registers + step.node * columns);
    }
  }
  without_gil_.reset();
  if (first + count == run_.rows) keep_joined_rows(registers);
  const NodeIndex root = run_.table.root;
  if (plan_.is_ahead(root) && !run_.node_outputs.empty()) {
    std::copy_n(row_of(root, first), count * run_.columns,
                doubles(run_.weights) + first * run_.columns);
  }
}

/// The nodes that had no step of their own end with the rows of those that stood for them.
void Strips::keep_joined_rows(double* registers) const {
  for (const NodeIndex node : run_.order) {
    const NodeIndex first = plan_.computed_as(node);
    if (first == graph_prep::no_node || first == node) continue;
    const auto columns = static_cast<std::size_t>(run_.columns);
    std::copy_n(registers + first * columns, columns, registers + node * columns);
  }
}

/// Where the node's rows go: null where they are read where they lie.
double* Strips::target_of(const StripStep& step) {
  const npy_intp start = first_ * run_.columns;
  if (!run_.node_outputs.empty()) return doubles(run_.node_outputs[step.node]) + start;
  if (step.node == run_.table.root) return doubles(run_.weights) + start;
  if (step.buffer == StripStep::no_buffer) return nullptr;
  return buffers_.get() + static_cast<npy_intp>(step.buffer) * plan_.rows_at_once() * run_.columns;
}

void Strips::run_leaf(const StripStep& step, npy_intp count, double* target) {
  const kernels::MatrixView& view = leaves_[step.node].view;
  const bool is_marked = run_.data_nan.is_marked(step.node, first_);
  if (target == nullptr) {
    rows_[step.node] = {view.row(first_).cells, view.row_stride};
    return;
  }
  rows_[step.node] = {target, run_.columns};
  if (is_marked) {
    std::fill_n(target, count * run_.columns, nan);
    return;
  }
  if (leaves_[step.node].is_converted) {
    without_gil_.reset();
    return copy_rows(leaves_[step.node].feature, first_, count, target);
  }
  for (npy_intp row = first_; row < first_ + count; ++row, target += run_.columns) {
    if (universe_.cells == nullptr) {
      kernels::copy_row(view.row(row), target);
    } else {
      kernels::mask_universe(view.row(row), universe_.row(row), target);
    }
  }
}

/// Keeps the failure of a row that the node got to; `failing()` raises it.
template <class Failing>
void Strips::remember(const StripStep& step, npy_intp row, Failing&& failing) {
  without_gil_.reset();
  try {
    failing();
  } catch (const ErrorSet&) {
    if (!error_matches(PyExc_Exception)) throw;
    exception_ = take_error();
    failed_row_ = row;
    failed_node_ = step.node;
  }
}

void Strips::run_kernel(const StripStep& step, npy_intp& count, double* target) {
  const quernbrook_row_kernel& kernel = *functions_.of(step.node).kernel;
  arguments_.clear();
  for (const NodeIndex source : plan_.sources(step)) arguments_.push_back(rows_[source]);
  quernbrook_failure failure{};
  const int status = kernel.run(kernel.state, arguments_.data(), arguments_.size(), count,
                                run_.columns, target, &failure);
  if (status == 0) return;
  const npy_intp offset = failure.row >= 0 && failure.row < count ? failure.row : 0;
  remember(step, first_ + offset,
           [&] { raise_kernel_failure(run_, step.node, failure, first_, count); });
  count = offset;
}

Object Strips::block_of(NodeIndex source, npy_intp count) const {
  Object block = uninitialised(count, run_.columns);
  double* cells = doubles(block);
  for (npy_intp row = first_; row < first_ + count; ++row, cells += run_.columns) {
    std::copy_n(row_of(source, row), run_.columns, cells);
  }
  return block;
}

void Strips::run_block(const StripStep& step, npy_intp& count, double* target) {
  const Object arguments = new_list();
  for (const NodeIndex source : plan_.sources(step)) append(arguments, block_of(source, count));
  Object result;
  const bool is_done = attempt({PyExc_Exception}, [&] {
    result = call_with(functions_.of(step.node).block, tuple_of_list(arguments), nullptr);
  });
  // Its state is as it was: a row at a time, the error names the row.
  if (!is_done) return run_rows(step, count, target);
  const Object shape = tuple_of(integer(count), run_.column_count);
  remember(step, first_, [&] {
    if (!is_array(result)) {
      raise(run_.space.global(run_.space.names.EvaluationShapeError),
            message("Function '", run_.table.nodes[step.node].value, "' returned ",
                    type_name(result), " for a block of rows, expected an array at row ", first_));
    }
    check_array(run_, step.node, result, shape, as_text(shape), first_);
    const Object block = uninitialised(count, run_.columns);
    assign(block, result);
    std::copy_n(doubles(block), count * run_.columns, target);
  });
  if (has_failed() && failed_node_ == step.node) count = 0;
}

void Strips::run_rows(const StripStep& step, npy_intp& count, double* target) {
  std::vector<Object> arguments;
  for (npy_intp row = first_; row < first_ + count; ++row, target += run_.columns) {
    arguments.clear();
    for (const NodeIndex source : plan_.sources(step)) {
      arguments.push_back(empty_vector(run_.columns));
      std::copy_n(row_of(source, row), run_.columns, doubles(arguments.back()));
    }
    set_attribute(run_.context, run_.space.names.current_day_index, integer(row));
    bool is_done = false;
    remember(step, row, [&] {
      const Object result = rotations_.call_with(step.node, arguments);
      if (result.empty()) raise_function_failure(run_, step.node, row);
      std::copy_n(doubles(as_row(run_, step.node, result, row)), run_.columns, target);
      is_done = true;
    });
    if (!is_done) {
      count = row - first_;
      return;
    }
  }
}

void Strips::run_reduction(const StripStep& step, npy_intp& count, double* target) {
  PoolRows& pool = pools_.at(step.node);
  const ReductionKernel& kernel = functions_.of(step.node).reduction;
  for (npy_intp row = first_; row < first_ + count; ++row, target += run_.columns) {
    pool.read(row);
    if (step.kind == Kind::mean && pool.mean(target)) continue;
    quernbrook_failure failure{};
    if (step.kind == Kind::reduction &&
        kernel->run(kernel->state, pool.weights(), pool.count(), run_.columns, pool.pnl(), target,
                    &failure) == 0) {
      continue;
    }
    bool is_done = false;
    remember(step, row, [&] {
      if (step.kind == Kind::reduction) raise_kernel_failure(run_, step.node, failure, row, 1);
      Object mean;
      try {
        mean = numpy_mean(run_, pool.block());
      } catch (const ErrorSet&) {
        raise_function_failure(run_, step.node, row);
      }
      std::copy_n(doubles(as_row(run_, step.node, mean, row)), run_.columns, target);
      is_done = true;
    });
    if (is_done) continue;
    count = row - first_;
    return;
  }
}

void Strips::keep_extraction() const {
  const auto last = std::find_if(run_.order.rbegin(), run_.order.rend(), [&](NodeIndex node) {
    return run_.table.nodes[node].kind == graph_prep::NodeKind::reduction;
  });
  if (last == run_.order.rend() || !plan_.is_ahead(*last)) return;
  run_.extraction_buffer = pools_.at(*last).block();
}

void Strips::let_marks_climb(const StripStep& step, npy_intp count, double* target) {
  for (npy_intp row = first_; row < first_ + count; ++row, target += run_.columns) {
    const auto cells_of = [&](NodeIndex child) { return row_of(child, row); };
    if (run_.data_nan.climbs(run_, step.node, row, cells_of)) {
      std::fill_n(target, run_.columns, nan);
    }
  }
}

}  // namespace quernbrook::evaluation
