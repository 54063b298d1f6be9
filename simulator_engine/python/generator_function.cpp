#include "python/generator_function.hpp"

#include <string>

#include "python/call.hpp"
#include "python/containers.hpp"
#include "python/protocol.hpp"
#include "python/text.hpp"

namespace quernbrook::python {
namespace {

/// The module `ast`, whose classes are the nodes of a syntax tree.
class SyntaxTree {
 public:
  SyntaxTree() : module_(import_module("ast")) {}

  template <class... Fields>
  Object node(const char* kind, const Fields&... fields) const {
    return call(attribute(module_, as_text(kind)), fields...);
  }
  Object with_positions(const Object& tree) const {
    return call(attribute(module_, as_text("fix_missing_locations")), tree);
  }

 private:
  Object module_;
};

template <class... Items>
Object list_with(const Items&... items) {
  return list_of(tuple_of(items...));
}

}  // namespace

Object attribute_generator(PyObject* module, const char* owner, const char* name,
                           std::initializer_list<const char*> attributes) {
  const SyntaxTree tree;
  const Object self = as_text("self");
  const Object load = tree.node("Load");
  const Object body = new_list();
  for (const char* text : attributes) {
    const Object read = tree.node("Attribute", tree.node("Name", self, load), as_text(text), load);
    append(body, tree.node("Expr", tree.node("Yield", read)));
  }
  const Object parameters =
      tree.node("arguments", new_list(), list_with(tree.node("arg", self)), Object::none(),
                new_list(), new_list(), Object::none(), new_list());
  const Object function = tree.node("FunctionDef", as_text(name), parameters, body, new_list());
#if PY_VERSION_HEX >= 0x030C0000
  set_attribute(function, as_text("type_params"), new_list());
#endif
  const Object program = tree.with_positions(tree.node("Module", list_with(function), new_list()));

  const Object compiler = attribute(import_module("builtins"), as_text("compile"));
  const Object module_name = attribute(module, as_text("__name__"));
  const Object code = call(compiler, program, message("<", module_name, ">"), as_text("exec"));
  const Object members = new_dict();
  set_dict_item(members, as_text("__name__"), module_name);
  Object::steal(calling_python([&] { return PyEval_EvalCode(code, members, members); }));
  Object made = item(members, as_text(name));
  set_attribute(made, as_text("__qualname__"), as_text((std::string(owner) + "." + name).c_str()));
  return made;
}

}  // namespace quernbrook::python
