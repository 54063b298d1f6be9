#include "expression_evaluator/literal_step.hpp"

#include <algorithm>

#include "python/protocol.hpp"

namespace quernbrook::evaluation {

using namespace python;
using graph_prep::Node;
using graph_prep::NodeIndex;
using graph_prep::NodeKind;

namespace {

/// `float(object)` and `bool(object)` run no foreign code and give the same number every time.
bool is_plain_literal(PyObject* object) {
  return PyLong_CheckExact(object) || PyFloat_CheckExact(object) || PyBool_Check(object) ||
         PyUnicode_CheckExact(object);
}

bool is_plain_float(const Object& literal) {
  return !literal.empty() && PyFloat_CheckExact(literal.get());
}

bool is_mixed_run(const Run& run) {
  // A bound function can write into any register, a precomputed output may come or go.
  return !run.bound_argument.is_none() || !run.owns_precomputed_outputs;
}

}  // namespace

LiteralStep::LiteralStep(Run& run, const Registers& registers)
    : run_(run), registers_(registers), registers_are_private_(!is_mixed_run(run)) {}

void LiteralStep::run(NodeIndex index, NodeKind kind, npy_intp row) {
  const Node& node = run_.table.nodes[index];
  const bool is_fixed = node.kind != NodeKind::compared &&
                        (kind == NodeKind::float_literal || kind == NodeKind::string_literal ||
                         is_plain_literal(node.value));
  if (row > 0 && is_fixed && registers_are_private_) return;
  if (kind == NodeKind::float_literal && !is_plain_float(node.literal)) {
    if (node.literal.empty()) raise_missing_path(run_, index);
    assign(registers_.view(index), node.literal);
    foreign_code_ran(run_, registers_);
    return;
  }
  const double value = number(node, kind);
  if (!is_fixed) foreign_code_ran(run_, registers_);
  std::fill_n(registers_.row(index), run_.columns, value);
}

double LiteralStep::number(const Node& node, NodeKind kind) const {
  switch (kind) {
    case NodeKind::float_literal:
      return PyFloat_AS_DOUBLE(node.literal.get());
    case NodeKind::int_literal:
      return as_double(node.value);
    case NodeKind::bool_literal:
      return truth(node.value) ? 1.0 : 0.0;
    default:
      return 0.0;
  }
}

}  // namespace quernbrook::evaluation
