#include "expression_evaluator/rows/row_loop.hpp"

#include <cstring>

#include "expression_evaluator/rows/leaf_step.hpp"
#include "expression_evaluator/rows/literal_step.hpp"
#include "expression_evaluator/rows/precomputed_step.hpp"
#include "expression_evaluator/rows/reduction_step.hpp"
#include "expression_evaluator/rows/registers.hpp"
#include "expression_evaluator/rows/rotation_step.hpp"
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
        leaves_(run, registers_),
        literals_(run, registers_),
        precomputed_(run, registers_),
        reductions_(run, registers_),
        rotations_(run, registers_) {}

  void run_all() {
    for (npy_intp row = 0; row < run_.rows; ++row) {
      check_signals();
      turns_.offer();
      set_attribute(run_.context, run_.space.names.current_day_index, integer(row));
      for (const NodeIndex node : run_.order) run_node(node, row);
      copy_outputs(row);
    }
  }

 private:
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
        literals_.run(index, kind, row);
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

  void copy_outputs(npy_intp row) {
    copy_register(run_.table.root, run_.weights, row);
    for (NodeIndex node = 0; node < run_.node_outputs.size(); ++node) {
      copy_register(node, run_.node_outputs[node], row);
    }
  }

  void copy_register(NodeIndex node, PyObject* matrix, npy_intp row) const {
    std::memcpy(doubles(matrix) + row * run_.columns, registers_.row(node), registers_.row_bytes());
  }

  Run& run_;
  Registers registers_;
  LeafStep leaves_;
  LiteralStep literals_;
  PrecomputedStep precomputed_;
  ReductionStep reductions_;
  RotationStep rotations_;
  Turns turns_;
};

}  // namespace

void run_rows(Run& run) { RowLoop(run).run_all(); }

}  // namespace quernbrook::evaluation
