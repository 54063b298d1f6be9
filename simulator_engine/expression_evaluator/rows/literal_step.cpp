#include "expression_evaluator/rows/literal_step.hpp"

#include <algorithm>

#include "python/numbers.hpp"
#include "python/protocol.hpp"

namespace quernbrook::evaluation {

using namespace python;
using graph_prep::Node;
using graph_prep::NodeIndex;
using graph_prep::NodeKind;

namespace {

bool is_plain_float(const Object& literal) { return !literal.empty() && is_exact_float(literal); }

bool is_mixed_run(const Run& run) {
  // A bound function can write into any register, a precomputed output may come or go.
  return !run.bound_argument.is_none() || !run.owns_precomputed_outputs;
}

}  // namespace

LiteralStep::LiteralStep(Run& run, const Registers& registers)
    : run_(run), registers_(registers), registers_are_private_(!is_mixed_run(run)) {}

void LiteralStep::run(NodeIndex index, NodeKind kind, npy_intp row) const {
  const Node& node = run_.table.nodes[index];
  const bool is_fixed = node.kind != NodeKind::compared &&
                        (kind == NodeKind::float_literal || kind == NodeKind::string_literal ||
                         is_plain_value(node.value));
  if (row > 0 && is_fixed && registers_are_private_) return;
  if (kind == NodeKind::float_literal && !is_plain_float(node.literal)) {
    if (node.literal.empty()) raise_missing_path(run_, index);
    registers_.assign(index, node.literal);
    return;
  }
  const double value = number(node, kind);
  std::fill_n(registers_.row(index), run_.columns, value);
}

double LiteralStep::number(const Node& node, NodeKind kind) const {
  switch (kind) {
    case NodeKind::float_literal:
      return float_value(node.literal);
    case NodeKind::int_literal:
      return as_double(node.value);
    case NodeKind::bool_literal:
      return truth(node.value) ? 1.0 : 0.0;
    default:
      return 0.0;
  }
}

}  // namespace quernbrook::evaluation
