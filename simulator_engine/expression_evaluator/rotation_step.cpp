#include "expression_evaluator/rotation_step.hpp"

#include "expression_evaluator/data_nan.hpp"
#include "expression_evaluator/function_output.hpp"
#include "python/finalization.hpp"
#include "python/protocol.hpp"

namespace quernbrook::evaluation {

using namespace python;
using graph_prep::Node;
using graph_prep::NodeIndex;
using graph_prep::NodeKind;

RotationStep::RotationStep(Run& run, const Registers& registers)
    : run_(run),
      registers_(registers),
      calls_(run.table.nodes.size()),
      arguments_(run.table.children.size()) {
  std::size_t most_children = 0;
  for (NodeIndex index = 0; index < calls_.size(); ++index) {
    const Node& node = run.table.nodes[index];
    most_children = std::max<std::size_t>(most_children, node.child_count);
    for (std::uint32_t place = 0; place < node.child_count; ++place) {
      const std::size_t slot = node.first_child + place;
      const Node& child = run.table.nodes[run.table.children[slot]];
      calls_[index].has_config_children |= run.table.is_config_child[slot] != 0;
      calls_[index].compares_kinds |= child.kind == NodeKind::compared;
    }
  }
  copies_.resize(most_children);
  stack_.resize(most_children + 3);
}

void RotationStep::run(NodeIndex index, npy_intp row) {
  const Node& node = run_.table.nodes[index];
  if (node.instance.empty()) raise_missing_path(run_, index);
  Call& call = calls_[index];
  const bool with_config = takes_config_children(node, call);
  const bool bound = run_is_bound();
  if (!call.is_chosen || call.with_config != with_config || call.in_bound_run != bound ||
      call.compares_kinds) {
    call.with_config = with_config;
    call.in_bound_run = bound;
    choose_arguments(node, call);
    if (call.compares_kinds) foreign_code_ran(run_, registers_);
  }
  const Object result = call_instance(node, call);
  if (result.empty()) raise_function_failure(run_, index, row);
  // After the last row they would only take memory from the next nodes' arguments.
  if (row + 1 == run_.rows) release_arguments(node, call);
  foreign_code_ran(run_, registers_);
  store_output(run_, registers_, index, propagate_data_nan(run_, registers_, index, result), row);
}

/// The truth of the caller's mapping, which functions can change while the run goes on.
bool RotationStep::run_is_bound() const {
  PyObject* bound = run_.bound_instances;
  if (PyDict_CheckExact(bound)) return PyDict_GET_SIZE(bound) > 0;
  const bool is_bound = truth(bound);
  foreign_code_ran(run_, registers_);
  return is_bound;
}

/// Looks the class of the node's instance up, unless it is still what it was.
void RotationStep::look_at_class(const Node& node, Call& call) const {
  PyTypeObject* type = Py_TYPE(node.instance.get());
  const unsigned int version = version_of(type);
  if (version != 0 && version == call.class_version) return;
  const host::Names& names = run_.space.names;
  call.has_plain_arity = has_plain_attribute(type, names.arity);
  PyObject* entry = find_on_type(type, names.call_);
  const bool is_function = entry != nullptr && PyFunction_Check(entry) &&
                           !PyType_HasFeature(type, Py_TPFLAGS_HAVE_VECTORCALL);
  call.function = is_function ? Object::share(entry) : Object();
  call.class_version = version_of(type);
}

/// A bound instance without `arity` receives the literals that were configuration, too.
bool RotationStep::takes_config_children(const Node& node, Call& call) const {
  if (!node.is_bound) return false;
  look_at_class(node, call);
  const bool nobody_can_tell = !call.has_config_children && call.has_plain_arity;
  if (nobody_can_tell) return false;
  const bool has_arity = has_attribute(node.instance, run_.space.names.arity);
  foreign_code_ran(run_, registers_);
  return !has_arity;
}

void RotationStep::choose_arguments(const Node& node, Call& call) {
  call.argument_count = 0;
  for (std::uint32_t place = 0; place < node.child_count; ++place) {
    const std::size_t slot = node.first_child + place;
    const NodeIndex child = run_.table.children[slot];
    if (is_argument(child, run_.table.is_config_child[slot] != 0, call.with_config)) {
      arguments_[node.first_child + call.argument_count++] = {child, {}};
    }
  }
  call.is_chosen = true;
}

bool RotationStep::is_argument(NodeIndex index, bool is_config, bool with_config) const {
  if (is_config && !with_config) return false;
  const Node& child = run_.table.nodes[index];
  const auto is = [&](NodeKind kind) { return graph_prep::is_kind(run_.space, child, kind); };
  if (is(NodeKind::string_literal)) return false;
  if (is(NodeKind::int_literal) && !run_is_bound()) return false;
  return !is(NodeKind::bool_literal);
}

void RotationStep::release_arguments(const Node& node, Call& call) {
  for (std::uint32_t place = 0; place < call.argument_count; ++place) {
    arguments_[node.first_child + place] = {};
  }
  call.is_chosen = false;
}

/// The instance's result; empty where it failed.
Object RotationStep::call_instance(const Node& node, Call& call) {
  const auto argument = [&](std::size_t place) -> CallArgument& {
    return call.in_bound_run ? arguments_[node.first_child + place].view : copies_[place];
  };
  constexpr std::size_t first_argument = 2;
  std::size_t count = 0;
  for (; count < call.argument_count; ++count) {
    const NodeIndex source = arguments_[node.first_child + count].source;
    stack_[first_argument + count] = call.in_bound_run ? argument(count).view(registers_, source)
                                                       : argument(count).copy(registers_, source);
  }
  PyObject* names = nullptr;
  if (!node.is_bound) {
    stack_[first_argument + count] = run_.context;
    names = run_.space.context_keyword;
  }
  Object result = vectorcall(node, call, stack_.data() + first_argument, count, names);
  for (std::size_t place = 0; place < count; ++place) argument(place).end_call(result);
  return result;
}

/// Calls with arguments that have two free places before them.
Object RotationStep::vectorcall(const Node& node, Call& call, PyObject** arguments,
                                std::size_t count, PyObject* names) const {
  // A class written in Python is called through its function, as the interpreter would do after
  // two more look-ups.
  look_at_class(node, call);
  if (!call.function.empty()) {
    arguments[-1] = node.instance;
    return Object::own_or_empty(entered([&] {
      return PyObject_Vectorcall(call.function, arguments - 1,
                                 (count + 1) | PY_VECTORCALL_ARGUMENTS_OFFSET, names);
    }));
  }
  return Object::own_or_empty(entered([&] {
    return PyObject_Vectorcall(node.instance, arguments, count | PY_VECTORCALL_ARGUMENTS_OFFSET,
                               names);
  }));
}

}  // namespace quernbrook::evaluation
