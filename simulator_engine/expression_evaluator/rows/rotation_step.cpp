#include "expression_evaluator/rows/rotation_step.hpp"

#include <algorithm>

#include "expression_evaluator/rows/function_output.hpp"
#include "python/call.hpp"
#include "python/containers.hpp"
#include "python/dict_insides.hpp"
#include "python/protocol.hpp"

namespace quernbrook::evaluation {

using namespace python;
using graph_prep::Node;
using graph_prep::NodeIndex;
using graph_prep::NodeKind;

RotationStep::RotationStep(Run& run, const Registers& registers, const RowFunctions& functions)
    : run_(run),
      registers_(registers),
      functions_(functions),
      plans_(run.table.nodes.size()),
      arguments_(run.table.children.size()) {
  std::size_t most_children = 0;
  for (NodeIndex index = 0; index < plans_.size(); ++index) {
    const Node& node = run.table.nodes[index];
    most_children = std::max<std::size_t>(most_children, node.child_count);
    for (std::uint32_t place = 0; place < node.child_count; ++place) {
      const std::size_t slot = node.first_child + place;
      const Node& child = run.table.nodes[run.table.children[slot]];
      plans_[index].has_config_children |= run.table.is_config_child[slot] != 0;
      plans_[index].compares_kinds |= child.kind == NodeKind::compared;
    }
  }
  copies_.resize(most_children);
  stack_.resize(most_children + 3);
  rows_.resize(most_children);
}

void RotationStep::run(NodeIndex index, npy_intp row) {
  const Node& node = run_.table.nodes[index];
  if (node.instance.empty()) raise_missing_path(run_, index);
  CallPlan& plan = plans_[index];
  const bool with_config = takes_config_children(node, plan);
  const bool bound = run_is_bound();
  if (!plan.is_chosen || plan.with_config != with_config || plan.in_bound_run != bound ||
      plan.compares_kinds) {
    plan.with_config = with_config;
    plan.in_bound_run = bound;
    choose_arguments(node, plan);
  }
  if (const RowKernel& kernel = functions_.of(index).kernel; !kernel.empty()) {
    run_kernel(index, *kernel, plan, row);
    settle_output(run_, registers_, index, row);
    return;
  }
  const Object result = call_instance(node, plan);
  if (result.empty()) raise_function_failure(run_, index, row);
  // After the last row they would only take memory from the next nodes' arguments.
  if (row + 1 == run_.rows) release_arguments(node, plan);
  store_output(run_, registers_, index, result, row);
}

/// Has the kernel compute the row where the node's register lies.
void RotationStep::run_kernel(NodeIndex index, const quernbrook_row_kernel& kernel,
                              const CallPlan& plan, npy_intp row) {
  const Node& node = run_.table.nodes[index];
  for (std::size_t place = 0; place < plan.argument_count; ++place) {
    rows_[place] = {registers_.row(arguments_[node.first_child + place].source), 0};
  }
  quernbrook_failure failure{};
  const int status = kernel.run(kernel.state, rows_.data(), plan.argument_count, 1, run_.columns,
                                registers_.row(index), &failure);
  if (status != 0) raise_kernel_failure(run_, index, failure, row, 1);
}

void RotationStep::append_argument_sources(NodeIndex index, std::vector<NodeIndex>& sources) {
  const Node& node = run_.table.nodes[index];
  CallPlan& plan = plans_[index];
  plan.with_config = takes_config_children(node, plan);
  plan.in_bound_run = run_is_bound();
  choose_arguments(node, plan);
  for (std::size_t place = 0; place < plan.argument_count; ++place) {
    sources.push_back(arguments_[node.first_child + place].source);
  }
}

Object RotationStep::call_with(NodeIndex index, std::span<const Object> rows) {
  const Node& node = run_.table.nodes[index];
  const CallTarget target(node.instance, run_.space.names.call_);
  PyObject** arguments = stack_.data() + CallTarget::free_places;
  std::ranges::copy(rows, arguments);
  return target.call(arguments, rows.size(), keywords_of(node, arguments + rows.size()));
}

/// The names of the call's last arguments; registry instances are given the context.
PyObject* RotationStep::keywords_of(const Node& node, PyObject** next) const {
  if (node.is_bound) return nullptr;
  *next = run_.context;
  return run_.space.context_keyword;
}

/// The truth of the caller's mapping, which functions can change while the run goes on.
bool RotationStep::run_is_bound() const {
  PyObject* bound = run_.bound_instances;
  return is_exact_dict(bound) ? dict_size(bound) > 0 : truth(bound);
}

/// A bound instance without `arity` receives the literals that were configuration, too.
bool RotationStep::takes_config_children(const Node& node, const CallPlan& plan) const {
  if (!node.is_bound) return false;
  PyObject* name = run_.space.names.arity;
  const bool nobody_can_tell =
      !plan.has_config_children && has_plain_attribute(type_of(node.instance), name);
  return !nobody_can_tell && !has_attribute(node.instance, name);
}

void RotationStep::choose_arguments(const Node& node, CallPlan& plan) {
  plan.argument_count = 0;
  for (std::uint32_t place = 0; place < node.child_count; ++place) {
    const std::size_t slot = node.first_child + place;
    const NodeIndex child = run_.table.children[slot];
    if (is_argument(child, run_.table.is_config_child[slot] != 0, plan.with_config)) {
      arguments_[node.first_child + plan.argument_count++] = {child, {}};
    }
  }
  plan.is_chosen = true;
}

bool RotationStep::is_argument(NodeIndex index, bool is_config, bool with_config) const {
  if (is_config && !with_config) return false;
  const Node& child = run_.table.nodes[index];
  const auto is = [&](NodeKind kind) { return graph_prep::is_kind(run_.space, child, kind); };
  if (is(NodeKind::string_literal)) return false;
  if (is(NodeKind::int_literal) && !run_is_bound()) return false;
  return !is(NodeKind::bool_literal);
}

void RotationStep::release_arguments(const Node& node, CallPlan& plan) {
  for (std::uint32_t place = 0; place < plan.argument_count; ++place) {
    arguments_[node.first_child + place] = {};
  }
  plan.is_chosen = false;
}

/// The instance's result; empty where it failed.
Object RotationStep::call_instance(const Node& node, const CallPlan& plan) {
  const auto argument = [&](std::size_t place) -> CallArgument& {
    return plan.in_bound_run ? arguments_[node.first_child + place].view : copies_[place];
  };
  // Looking it up may run foreign code, which must find no argument yet.
  const CallTarget target(node.instance, run_.space.names.call_);
  PyObject** arguments = stack_.data() + CallTarget::free_places;
  std::size_t count = 0;
  for (; count < plan.argument_count; ++count) {
    const NodeIndex source = arguments_[node.first_child + count].source;
    arguments[count] = plan.in_bound_run ? argument(count).view(registers_, source)
                                         : argument(count).copy(registers_, source);
  }
  Object result = target.call(arguments, count, keywords_of(node, arguments + count));
  for (std::size_t place = 0; place < count; ++place) argument(place).end_call(result);
  return result;
}

}  // namespace quernbrook::evaluation
