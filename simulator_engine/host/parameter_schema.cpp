#include "host/parameter_schema.hpp"

#include "python/call.hpp"
#include "python/containers.hpp"
#include "python/items.hpp"
#include "python/protocol.hpp"
#include "python/text.hpp"

namespace quernbrook::host {

using namespace python;

namespace {

Object schema_of(const Namespace& space, PyObject* entry) {
  return attribute_or(entry, space.names.param_schema, Py_None);
}

Object schema_items(PyObject* schema) {
  return schema == Py_None ? tuple_of() : Object::borrow(schema);
}

/// `dict.get(key)` or `dict.get(key, fallback)` of the object's own class.
Object get(const Namespace& space, PyObject* dict, PyObject* key) {
  return call_method(dict, space.names.get, key);
}

std::pair<Object, Object> name_and_type(const Namespace& space, PyObject* schema_item,
                                        PyObject* fallback_name) {
  const Names& names = space.names;
  if (is_tuple(schema_item) && length(schema_item) == 2) {
    auto [name, constraint] = unpack_pair(schema_item);
    if (is_dict(constraint)) return {name, get(space, constraint, names.type)};
    if (is_str(constraint)) return {name, constraint};
    return {name, attribute_or(constraint, names.type, Py_None)};
  }
  if (is_dict(schema_item)) {
    Object name = call_method(schema_item, names.get, names.name, fallback_name);
    return {name, get(space, schema_item, names.type)};
  }
  Object name = attribute_or(schema_item, names.name, fallback_name);
  return {name, attribute_or(schema_item, names.type, Py_None)};
}

}  // namespace

Object config_parameter_names(const Namespace& space, PyObject* entry) {
  const Object schema = schema_of(space, entry);
  const Object items = is_dict(schema) ? list_of(call_method(schema, space.names.items))
                                       : list_of(schema_items(schema));
  const Object kinds = space.global(space.names._CONFIG_CHILD_TYPES);
  Object found = new_list();
  Items all(items);
  for (const Object& schema_item : all) {
    const auto [name, kind] = name_and_type(space, schema_item, message("param_", all.position()));
    if (contains(kinds, kind) && truth(name)) append(found, as_text(name));
  }
  return found;
}

Object schema_names(const Namespace& space, PyObject* entry) {
  const Object schema = schema_of(space, entry);
  if (is_dict(schema)) return set_of(call_method(schema, space.names.keys));
  Object found = new_set();
  for (const Object& schema_item : Items(schema_items(schema))) {
    const Object name = attribute_or(schema_item, space.names.name, Py_None);
    if (truth(name)) add_to_set(found, name);
  }
  return found;
}

Object make_config_child_types(const Namespace& space) {
  Object kinds = new_set();
  for (PyObject* kind : {space.names.float_.get(), space.names.int_.get(), space.names.string.get(),
                         space.names.bool_.get()}) {
    add_to_set(kinds, kind);
  }
  return kinds;
}

namespace {

Object iter_schema_items(Namespace&, const CallArguments& arguments) {
  static constexpr Parameters<1> parameters{"_iter_schema_items", {"schema"}};
  const auto [schema] = parameters.bind(arguments);
  return schema_items(schema);
}

Object schema_param_name_and_type(Namespace& space, const CallArguments& arguments) {
  static constexpr Parameters<2> parameters{
      "_schema_param_name_and_type", {"item", "fallback_name"}, 1};
  const auto [schema_item, fallback_name] = parameters.bind(arguments);
  const auto [name, kind] = name_and_type(space, schema_item, or_none(fallback_name));
  return tuple_of(name, kind);
}

Object config_param_names(Namespace& space, const CallArguments& arguments) {
  static constexpr Parameters<1> parameters{"_config_param_names", {"entry"}};
  const auto [entry] = parameters.bind(arguments);
  return config_parameter_names(space, entry);
}

Object preflight_param_schema_names(Namespace& space, const CallArguments& arguments) {
  static constexpr Parameters<1> parameters{"_preflight_param_schema_names", {"entry"}};
  const auto [entry] = parameters.bind(arguments);
  return schema_names(space, entry);
}

Object param_schema_names(Namespace& space, const CallArguments& arguments) {
  static constexpr Parameters<1> parameters{"_param_schema_names", {"entry"}};
  const auto [entry] = parameters.bind(arguments);
  return schema_names(space, entry);
}

}  // namespace

PyMethodDef parameter_schema_functions[] = {
    function_definition<iter_schema_items>(
        "_iter_schema_items",
        "_iter_schema_items($module, /, schema)\n--\n\n"
        "Return the schema itself, or an empty tuple if it is None."),
    function_definition<schema_param_name_and_type>(
        "_schema_param_name_and_type",
        "_schema_param_name_and_type($module, /, item, fallback_name=None)\n--\n\n"
        "Return the pair (name, type) that a schema item describes."),
    function_definition<config_param_names>(
        "_config_param_names",
        "_config_param_names($module, /, entry)\n--\n\n"
        "Return the names of the parameters that literal children fill, in schema order."),
    function_definition<preflight_param_schema_names>(
        "_preflight_param_schema_names",
        "_preflight_param_schema_names($module, /, entry)\n--\n\n"
        "Return the set of parameter names that the explicit configuration may use."),
    function_definition<param_schema_names>(
        "_param_schema_names",
        "_param_schema_names($module, /, entry)\n--\n\n"
        "Return the set of parameter names that the merged configuration may use."),
    {nullptr, nullptr, 0, nullptr},
};

}  // namespace quernbrook::host
