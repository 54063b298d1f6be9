#include "expression_evaluator/function_state.hpp"

#include "python/call.hpp"
#include "python/class_statement.hpp"
#include "python/containers.hpp"
#include "python/protocol.hpp"
#include "python/text.hpp"

namespace quernbrook::evaluation {

using namespace python;
using host::Names;

namespace {

Object to_bytes(Namespace& space, PyObject* self, const CallArguments& arguments) {
  static constexpr Parameters<0> parameters{"FunctionState.to_bytes", {}};
  parameters.bind(arguments);
  const Names& names = space.names;
  const Object dumps = attribute(space.global(names.json), names.dumps);
  const Object members = new_dict();
  set_dict_item(members, names.name, attribute(self, names.name));
  set_dict_item(members, names.state_data, attribute(self, names.state_data));
  return call_method(call(dumps, members), names.encode);
}

Object from_bytes(Namespace& space, PyObject* cls, const CallArguments& arguments) {
  static constexpr Parameters<1> parameters{"FunctionState.from_bytes", {"data"}};
  const auto [data] = parameters.bind(arguments);
  const Names& names = space.names;
  const Object loads = attribute(space.global(names.json), names.loads);
  const Object members = call(loads, call_method(data, names.decode));
  const Object name = item(members, names.name);
  const Object state_data = item(members, names.state_data);
  return call_named(cls, space.state_keywords, name, state_data);
}

PyMethodDef function_state_methods[] = {
    method_definition<to_bytes>(
        "to_bytes",
        "to_bytes($self, /)\n--\n\n"
        "Return the state as the ASCII bytes of one JSON object.\n"
        "\n"
        "Raises TypeError if `state_data` holds anything that JSON cannot carry, such as arrays."),
    method_definition<from_bytes>(
        "from_bytes",
        "from_bytes($type, /, data)\n--\n\n"
        "Return the state that to_bytes() wrote.\n"
        "\n"
        "Raises UnicodeDecodeError or json.JSONDecodeError for bytes that are no JSON text, and\n"
        "KeyError if the member `name` or `state_data` is missing.",
        METH_CLASS),
    {nullptr, nullptr, 0, nullptr},
};

constexpr const char* function_state_docstring =
    "Serializable function state for checkpointing.\n"
    "\n"
    "Attributes\n"
    "----------\n"
    "name : str\n"
    "    The function's name.\n"
    "state_data : dict\n"
    "    The payload that a function instance hands out and takes back; plain Python data.";

}  // namespace

Object make_function_state_class(PyObject* module) {
  Object cls =
      make_class(module, "FunctionState", function_state_docstring, function_state_methods);
  const Object dict_annotation = item(
      attribute(module, as_text("Dict")),
      tuple_of(reinterpret_cast<PyObject*>(&PyUnicode_Type), attribute(module, as_text("Any"))));
  const Object annotations = new_dict();
  set_dict_item(annotations, as_text("name"), reinterpret_cast<PyObject*>(&PyUnicode_Type));
  set_dict_item(annotations, as_text("state_data"), dict_annotation);
  set_attribute(cls, as_text("__annotations__"), annotations);
  const Object default_factory =
      call_named(attribute(module, as_text("field")), tuple_of(as_text("default_factory")),
                 reinterpret_cast<PyObject*>(&PyDict_Type));
  set_attribute(cls, as_text("state_data"), default_factory);
  return call(attribute(module, as_text("dataclass")), cls);
}

}  // namespace quernbrook::evaluation
