#include "expression_evaluator/result.hpp"

#include "python/call.hpp"
#include "python/class_statement.hpp"
#include "python/containers.hpp"
#include "python/dict_insides.hpp"
#include "python/error.hpp"
#include "python/generator_function.hpp"
#include "python/numbers.hpp"
#include "python/protocol.hpp"
#include "python/recursion.hpp"
#include "python/text.hpp"

namespace quernbrook::evaluation {

using namespace python;

namespace {

Object result_init(Namespace& space, PyObject* self, const CallArguments& arguments) {
  static constexpr Parameters<4> parameters{
      "EvaluationResult.__init__", {"weights", "states", "nan_source", "node_outputs"}, 2};
  const auto [weights, states, nan_source, node_outputs] = parameters.bind(arguments);
  set_attribute(self, space.names.weights, weights);
  set_attribute(self, space.names.states, states);
  set_attribute(self, space.names.nan_source, or_new_dict(or_none(nan_source)));
  set_attribute(self, space.names.node_outputs, or_new_dict(or_none(node_outputs)));
  return Object::none();
}

Object result_len(Namespace&, PyObject*, const CallArguments& arguments) {
  static constexpr Parameters<0> parameters{"EvaluationResult.__len__", {}};
  parameters.bind(arguments);
  return integer(2);
}

Object result_getitem(Namespace& space, PyObject* self, const CallArguments& arguments) {
  static constexpr Parameters<1> parameters{"EvaluationResult.__getitem__", {"index"}};
  const auto [index] = parameters.bind(arguments);
  const Object weights = attribute(self, space.names.weights);
  const Object states = attribute(self, space.names.states);
  return item(tuple_of(weights, states), index);
}

Object result_array(Namespace& space, PyObject* self, const CallArguments& arguments) {
  static constexpr Parameters<1> parameters{"EvaluationResult.__array__", {"dtype"}, 0};
  const auto [dtype] = parameters.bind(arguments);
  const Object asarray = space.numpy(space.names.asarray);
  const Object weights = attribute(self, space.names.weights);
  if (or_none(dtype) == Py_None) return call(asarray, weights);
  return call_named(asarray, space.dtype_keyword, weights, dtype);
}

/// True for a result without weights that is asked for them: to look for them there would lead here
/// again without end, by frames of C that the interpreter counts for less than they take.
bool lacks_weights(const Namespace& space, PyObject* self, PyObject* name) {
  const host::Names& names = space.names;
  if (!is_exact_text(name) || !equal(name, names.weights)) return false;
  PyTypeObject* type = type_of(self);
  const Object base = space.global(names.EvaluationResult);
  const bool looks_as_the_base = is_type(base) &&
                                 have_same_entry(type, as_type(base), names.getattr_) &&
                                 have_same_entry(type, as_type(base), names.getattribute_);
  return looks_as_the_base && find_on_type(type, names.weights).empty() &&
         !has_ordinary_attribute(self, names.weights);
}

Object result_getattr(Namespace& space, PyObject* self, const CallArguments& arguments) {
  static constexpr Parameters<1> parameters{"EvaluationResult.__getattr__", {"name"}};
  const auto [name] = parameters.bind(arguments);
  const RecursionLevel level(" while calling a Python object");
  if (lacks_weights(space, self, name)) {
    raise_text(PyExc_RecursionError, "maximum recursion depth exceeded");
  }
  const Object weights = attribute(self, space.names.weights);
  return attribute(weights, name);
}

PyMethodDef result_methods[] = {
    method_definition<result_init>(
        "__init__",
        "__init__($self, /, weights, states, nan_source=None, node_outputs=None)\n--\n\n"
        "Store the outcome of a run by reference."),
    method_definition<result_len>(
        "__len__", "__len__($self, /)\n--\n\nReturn 2, the length of (weights, states)."),
    method_definition<result_getitem>(
        "__getitem__",
        "__getitem__($self, /, index)\n--\n\nReturn an item or slice of (weights, states)."),
    method_definition<result_array>(
        "__array__",
        "__array__($self, /, dtype=None)\n--\n\n"
        "Return the weights matrix, shared unless `dtype` asks for a conversion."),
    method_definition<result_getattr>(
        "__getattr__",
        "__getattr__($self, /, name)\n--\n\nReturn the attribute of the weights matrix."),
    {nullptr, nullptr, 0, nullptr},
};

constexpr const char* result_docstring =
    "Array-like evaluate() result that still unpacks as (weights, states).\n"
    "\n"
    "Converted to an array, or asked for an array attribute such as `shape`, it is the weights\n"
    "matrix; unpacked, indexed or measured with len(), it is the pair (weights, states).\n"
    "\n"
    "Attributes\n"
    "----------\n"
    "weights : float64 array of shape (T, N_alloc)\n"
    "    The output weights.\n"
    "states : dict of state key to function state\n"
    "    The states of all stateful function instances.\n"
    "nan_source : dict of node path to tag\n"
    "    Nodes whose NaNs come from missing input data; empty when not tracked.\n"
    "node_outputs : dict of node path to float64 array of shape (T, N_alloc)\n"
    "    The output of every node where the run collected them, else empty.";

}  // namespace

Object make_result_class(PyObject* module) {
  Object cls = make_class(module, "EvaluationResult", result_docstring, result_methods);
  const Object iterate =
      attribute_generator(module, "EvaluationResult", "__iter__", {"weights", "states"});
  set_attribute(iterate, as_text("__doc__"), as_text("Yield the weights, then the states."));
  set_attribute(cls, as_text("__iter__"), iterate);
  return cls;
}

}  // namespace quernbrook::evaluation
