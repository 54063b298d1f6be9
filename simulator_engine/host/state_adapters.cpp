#include "host/state_adapters.hpp"

#include "python/call.hpp"
#include "python/containers.hpp"
#include "python/error.hpp"
#include "python/numbers.hpp"
#include "python/protocol.hpp"
#include "python/text.hpp"

namespace quernbrook::host {

using namespace python;

Object function_state_data(const Namespace& space, PyObject* state) {
  if (state == Py_None) return new_dict();
  Object data = attribute_or(state, space.names.state_data, state);
  return data.is_none() ? new_dict() : data;
}

namespace {

Object function_state_version(const Namespace& space, PyObject* registry, PyObject* function_name,
                              PyObject* state) {
  const Names& names = space.names;
  if (has_attribute(state, names.function_version)) return attribute(state, names.function_version);
  if (is_dict(state) && contains(state, names.function_version)) {
    return item(state, names.function_version);
  }
  const Object get_version = attribute_or(registry, names.get_function_version, Py_None);
  if (is_callable(get_version)) return call(get_version, function_name);
  const Object get_entry = attribute_or(registry, names.get_entry, Py_None);
  if (is_callable(get_entry)) {
    return attribute_or(call(get_entry, function_name), names.function_version, integer(1));
  }
  return integer(1);
}

Object registry_function_state_class(const Namespace& space, PyObject* registry) {
  const Names& names = space.names;
  const Object registry_class = attribute(registry, names.class_);
  const Object module_name = attribute_or(registry_class, names.module_, as_text(""));
  if (!truth(module_name)) return Object::none();
  Object module;
  const bool is_there = attempt({PyExc_Exception}, [&] {
    module = call_method(space.global(names.importlib), names.import_module, module_name);
  });
  if (!is_there) return Object::none();
  return attribute_or(module, names.FunctionState, Py_None);
}

bool is_typed(const Namespace& space, PyObject* state) {
  const Names& names = space.names;
  return has_attribute(state, names.function_name) &&
         has_attribute(state, names.function_version) && has_attribute(state, names.data);
}

/// `{"function_name", "function_version", "data"} <= state.keys()`.
bool is_raw_typed(const Namespace& space, PyObject* state) {
  if (!is_dict(state)) return false;
  const Names& names = space.names;
  const Object wanted = new_set();
  for (PyObject* name :
       {names.function_name.get(), names.function_version.get(), names.data.get()}) {
    add_to_set(wanted, name);
  }
  return truth(call_method(wanted, names.issubset, call_method(state, names.keys)));
}

struct StateParts {
  Object name;
  Object version;
  Object data;
};

StateParts parts_of(const Namespace& space, PyObject* registry, PyObject* function_name,
                    PyObject* state) {
  const Names& names = space.names;
  StateParts parts;
  if (is_raw_typed(space, state)) {
    parts.name = item(state, names.function_name);
    parts.version = item(state, names.function_version);
    parts.data = item(state, names.data);
  } else {
    parts.name = Object::borrow(function_name);
    parts.version = function_state_version(space, registry, function_name, state);
    parts.data = function_state_data(space, state);
  }
  return parts;
}

}  // namespace

Object state_for_registry_restore(const Namespace& space, PyObject* registry,
                                  PyObject* function_name, PyObject* state) {
  if (state == Py_None || is_typed(space, state)) return Object::borrow(state);
  const StateParts parts = parts_of(space, registry, function_name, state);
  const Object state_class = registry_function_state_class(space, registry);
  if (state_class.is_none()) return Object::borrow(state);
  Object typed = Object::borrow(state);
  attempt({PyExc_TypeError}, [&] {
    typed =
        call_named(state_class, space.typed_state_keywords, parts.name, parts.version, parts.data);
  });
  return typed;
}

namespace {

Object call_function_state_data(Namespace& space, const CallArguments& arguments) {
  static constexpr Parameters<1> parameters{"_function_state_data", {"state"}};
  const auto [state] = parameters.bind(arguments);
  return function_state_data(space, state);
}

Object call_function_state_version(Namespace& space, const CallArguments& arguments) {
  static constexpr Parameters<3> parameters{"_function_state_version",
                                            {"registry", "function_name", "state"}};
  const auto [registry, function_name, state] = parameters.bind(arguments);
  return function_state_version(space, registry, function_name, state);
}

Object call_registry_function_state_class(Namespace& space, const CallArguments& arguments) {
  static constexpr Parameters<1> parameters{"_registry_function_state_class", {"registry"}};
  const auto [registry] = parameters.bind(arguments);
  return registry_function_state_class(space, registry);
}

Object call_state_for_registry_restore(Namespace& space, const CallArguments& arguments) {
  static constexpr Parameters<3> parameters{"_state_for_registry_restore",
                                            {"registry", "function_name", "state"}};
  const auto [registry, function_name, state] = parameters.bind(arguments);
  return state_for_registry_restore(space, registry, function_name, state);
}

}  // namespace

PyMethodDef state_adapter_functions[] = {
    function_definition<call_function_state_data>(
        "_function_state_data",
        "_function_state_data($module, /, state)\n--\n\n"
        "Return the serializable state payload from FunctionState or raw dict."),
    function_definition<call_function_state_version>(
        "_function_state_version",
        "_function_state_version($module, /, registry, function_name, state)\n--\n\n"
        "Resolve the version metadata needed by strict FunctionStore restores."),
    function_definition<call_registry_function_state_class>(
        "_registry_function_state_class",
        "_registry_function_state_class($module, /, registry)\n--\n\n"
        "Return registry module FunctionState class when the registry declares one."),
    function_definition<call_state_for_registry_restore>(
        "_state_for_registry_restore",
        "_state_for_registry_restore($module, /, registry, function_name, state)\n--\n\n"
        "Adapt evaluator raw state payloads to registries with typed state contracts."),
    {nullptr, nullptr, 0, nullptr},
};

}  // namespace quernbrook::host
