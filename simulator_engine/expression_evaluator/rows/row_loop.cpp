#include "expression_evaluator/rows/row_loop.hpp"

#include <algorithm>
#include <cstring>

#include "expression_evaluator/rows/leaf_step.hpp"
#include "expression_evaluator/rows/literal_step.hpp"
#include "expression_evaluator/rows/precomputed_step.hpp"
#include "expression_evaluator/rows/reduction_step.hpp"
#include "expression_evaluator/rows/registers.hpp"
#include "expression_evaluator/rows/rotation_step.hpp"
#include "expression_evaluator/rows/row_function.hpp"
#include "expression_evaluator/rows/strip_plan.hpp"
#include "expression_evaluator/rows/strips.hpp"
#include "python/array.hpp"
#include "python/error.hpp"
#include "python/gil.hpp"
#include "python/numbers.hpp"
#include "python/protocol.hpp"

namespace quernbrook::evaluation {

using namespace python;
using graph_prep::Node;
using graph_prep::NodeIndex;
using graph_prep::NodeKind;

namespace {

class RowLoop {
 public:
  explicit RowLoop(Run& run)
      : run_(run),
        registers_(run.registers),
        functions_(run),
        leaves_(run, registers_),
        literals_(run, registers_),
        precomputed_(run, registers_),
        reductions_(run, registers_, functions_),
        rotations_(run, registers_, functions_) {}

  void run_all() {
    npy_intp row = 0;
    if (functions_.any() && is_plain_context()) {
      // It resolves the filters.
      if (has_filters() && run_.rows > 0) {
        clear_registers();
        run_row(row++);
      }
      row = run_strips(row);
    }
    first_single_row_ = row;
    // A run in strips alone ends with a row in each.
    if (row < run_.rows || run_.rows == 0) clear_registers();
    for (; row < run_.rows; ++row) run_row(row);
  }

 private:
  /// Nobody can tell whether the context's row number goes up one by one.
  bool is_plain_context() const {
    return has_plain_item(run_.context, run_.space.names.current_day_index) &&
           has_plain_attribute(type_of(run_.context), run_.space.names.universe);
  }

  bool has_filters() const {
    return std::ranges::any_of(run_.table.nodes,
                               [](const Node& node) { return node.kind == NodeKind::filtration; });
  }

  void set_day(npy_intp row) {
    set_attribute(run_.context, run_.space.names.current_day_index, integer(row));
  }

  void clear_registers() {
    if (are_clear_) return;
    std::fill_n(registers_.row(0), registers_.cell_count(), 0.0);
    are_clear_ = true;
  }

  void begin_row(npy_intp row) {
    check_signals();
    turns_.offer();
    set_day(row);
  }

  void run_row(npy_intp row) {
    begin_row(row);
    for (const NodeIndex node : run_.order) run_node(node, row);
    copy_outputs(row, [](NodeIndex) { return true; });
  }

  /// The host's promise that nothing changes while a run reads rows ahead of others.
  bool may_read_ahead() const {
    return truth(attribute_or(run_.context, run_.space.names._reads_rows_ahead, Py_False));
  }

  /// Runs as many rows from `row` on as can go in strips; the next row.
  npy_intp run_strips(npy_intp row) {
    if (row == run_.rows) return row;
    const bool may_be_whole = StripPlan::may_be_whole(run_, functions_);
    if (!may_be_whole && !may_read_ahead()) return row;
    const StripPlan plan(run_, functions_, rotations_);
    if (plan.steps().empty()) return row;
    if (may_be_whole && !plan.is_whole() && !may_read_ahead()) return row;
    if (!plan.is_whole()) clear_registers();
    Strips strips(run_, registers_, rotations_, functions_, plan);
    // What other threads replace meanwhile is not looked at where nodes were joined.
    const npy_intp first = row;
    const auto is_bound = [&] { return (row > first && plan.has_joined()) || strips.bind(); };
    while (row < run_.rows && is_bound()) {
      const npy_intp count = std::min(plan.rows_at_once(), run_.rows - row);
      begin_row(row);
      strips.compute(row, count);
      if (plan.is_whole()) {
        set_day(strips.has_failed() ? strips.failed_row() : row + count - 1);
        if (strips.has_failed()) strips.raise_failure();
      } else {
        for (npy_intp offset = 0; offset < count; ++offset) run_rest(plan, strips, row + offset);
      }
      row += count;
    }
    if (row == run_.rows) strips.keep_extraction();
    return row;
  }

  /// A row of the nodes that are no part of strips, which are a strip ahead of it.
  void run_rest(const StripPlan& plan, Strips& strips, npy_intp row) {
    begin_row(row);
    auto top = plan.tops().begin();
    for (const NodeIndex node : run_.order) {
      const bool fails_here = strips.has_failed() && strips.failed_row() == row;
      if (fails_here && strips.failed_node() == node) strips.raise_failure();
      if (!plan.is_ahead(node)) {
        run_node(node, row);
      } else if (top != plan.tops().end() && *top == node) {
        std::copy_n(strips.row_of(node, row), run_.columns, registers_.row(node));
        ++top;
      }
    }
    copy_outputs(row, [&](NodeIndex node) { return !plan.is_ahead(node); });
  }

  void run_node(NodeIndex index, npy_intp row) {
    const Node& node = run_.table.nodes[index];
    if (precomputed_.run(index, row)) return;
    NodeKind kind = node.kind;
    if (kind == NodeKind::compared) {
      kind = graph_prep::compare_kind(run_.space, node.type);
    }
    switch (kind) {
      case NodeKind::leaf:
        leaves_.run(index, row);
        break;
      case NodeKind::float_literal:
      case NodeKind::int_literal:
      case NodeKind::string_literal:
      case NodeKind::bool_literal:
        literals_.run(index, kind, row - first_single_row_);
        break;
      case NodeKind::filtration:
        reductions_.run_filtration(index, row);
        break;
      case NodeKind::reduction:
        reductions_.run_reduction(index, row);
        break;
      case NodeKind::rotation:
        rotations_.run(index, row);
        break;
      default:
        break;
    }
  }

  /// Copies the registers of the nodes that are chosen.
  template <class Chosen>
  void copy_outputs(npy_intp row, Chosen&& is_chosen) {
    const NodeIndex root = run_.table.root;
    if (is_chosen(root)) copy_register(root, run_.weights, row);
    for (NodeIndex node = 0; node < run_.node_outputs.size(); ++node) {
      if (is_chosen(node)) copy_register(node, run_.node_outputs[node], row);
    }
  }

  void copy_register(NodeIndex node, PyObject* matrix, npy_intp row) const {
    std::memcpy(doubles(matrix) + row * run_.columns, registers_.row(node), registers_.row_bytes());
  }

  Run& run_;
  Registers registers_;
  RowFunctions functions_;
  LeafStep leaves_;
  LiteralStep literals_;
  PrecomputedStep precomputed_;
  ReductionStep reductions_;
  RotationStep rotations_;
  Turns turns_;
  npy_intp first_single_row_ = 0;  // of those that go row by row
  bool are_clear_ = false;         // the registers were set to zero
};

}  // namespace

void run_rows(Run& run) { RowLoop(run).run_all(); }

}  // namespace quernbrook::evaluation
