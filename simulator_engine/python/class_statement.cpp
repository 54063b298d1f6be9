#include "python/class_statement.hpp"

#include "python/arguments.hpp"
#include "python/call.hpp"
#include "python/containers.hpp"
#include "python/protocol.hpp"
#include "python/text.hpp"

namespace quernbrook::python {
namespace {

Object method_of(PyTypeObject* type, PyMethodDef* definition) {
  const bool is_class_method = (definition->ml_flags & METH_CLASS) != 0;
  Object method = Object::steal(calling_python([&] {
    return is_class_method ? PyDescr_NewClassMethod(type, definition)
                           : PyDescr_NewMethod(type, definition);
  }));
#if PY_VERSION_HEX >= 0x030D0000
  // inspect.signature binds __init__ to the class itself, which a method descriptor refuses.
  if (is_spelt(as_text(definition->ml_name), "__init__")) {
    return Object::steal(calling_python([&] { return PyInstanceMethod_New(method); }));
  }
#endif
  return method;
}

}  // namespace

Object make_class(PyObject* module, const char* name, const char* docstring, PyMethodDef* methods) {
  const Object members = new_dict();
  set_dict_item(members, as_text("__module__"), attribute(module, as_text("__name__")));
  set_dict_item(members, as_text("__doc__"), as_text(docstring));
  Object cls = call(reinterpret_cast<PyObject*>(&PyType_Type), as_text(name), tuple_of(), members);
  // Through it methods reach the state of their module, as those of a class from a type spec do.
  reinterpret_cast<PyHeapTypeObject*>(cls.get())->ht_module = Py_NewRef(module);
  auto* type = reinterpret_cast<PyTypeObject*>(cls.get());
  for (PyMethodDef* method = methods; method->ml_name != nullptr; ++method) {
    // Assigning a special method makes the interpreter wire up the slots behind it.
    set_attribute(cls, as_text(method->ml_name), method_of(type, method));
  }
  return cls;
}

}  // namespace quernbrook::python
