#include "python/instance_type.hpp"

#include <structmember.h>

#include <cstddef>
#include <string_view>

#include "python/protocol.hpp"
#include "python/text.hpp"

namespace quernbrook::python {
namespace {

struct Instance {
  PyObject_HEAD
  PyObject* attributes;
  PyObject* weak_references;
};

int Instance_traverse(PyObject* self, visitproc visit, void* arg) {
  Py_VISIT(Py_TYPE(self));
  Py_VISIT(reinterpret_cast<Instance*>(self)->attributes);
  return 0;
}

int Instance_clear(PyObject* self) {
  Py_CLEAR(reinterpret_cast<Instance*>(self)->attributes);
  return 0;
}

void Instance_dealloc(PyObject* self) {
  PyTypeObject* type = Py_TYPE(self);
  if (type->tp_finalize != nullptr && PyObject_CallFinalizerFromDealloc(self) < 0) return;
  PyObject_GC_UnTrack(self);
  if (reinterpret_cast<Instance*>(self)->weak_references != nullptr) PyObject_ClearWeakRefs(self);
  Instance_clear(self);
  type->tp_free(self);
  Py_DECREF(type);
}

PyMemberDef Instance_members[] = {
    {"__dictoffset__", T_PYSSIZET, offsetof(Instance, attributes), READONLY, nullptr},
    {"__weaklistoffset__", T_PYSSIZET, offsetof(Instance, weak_references), READONLY, nullptr},
    {nullptr, 0, 0, 0, nullptr},
};

PyGetSetDef Instance_getset[] = {
    {"__dict__", PyObject_GenericGetDict, PyObject_GenericSetDict, nullptr, nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

/// Assigning a special method on a class makes the interpreter wire up the slots behind it.
void activate_special_methods(PyObject* type, const PyMethodDef* methods) {
  for (const PyMethodDef* method = methods; method->ml_name != nullptr; ++method) {
    if (!std::string_view(method->ml_name).starts_with("__")) continue;
    const Object name = as_text(method->ml_name);
    set_attribute(type, name, attribute(type, name));
  }
#if PY_VERSION_HEX >= 0x030D0000
  // inspect.signature binds __init__ to the class itself, which a method descriptor refuses.
  const Object name = as_text("__init__");
  const Object initializer = optional_attribute(type, name);
  if (initializer.empty() || Py_TYPE(initializer.get()) != &PyMethodDescr_Type) return;
  set_attribute(type, name, Object::own(PyInstanceMethod_New(initializer)));
#endif
}

}  // namespace

Object make_class(PyObject* module, const char* qualified_name, const char* docstring,
                  PyMethodDef* methods) {
  PyType_Slot slots[] = {
      {Py_tp_doc, const_cast<char*>(docstring)},
      {Py_tp_methods, methods},
      {Py_tp_members, Instance_members},
      {Py_tp_getset, Instance_getset},
      {Py_tp_traverse, reinterpret_cast<void*>(Instance_traverse)},
      {Py_tp_clear, reinterpret_cast<void*>(Instance_clear)},
      {Py_tp_dealloc, reinterpret_cast<void*>(Instance_dealloc)},
      {0, nullptr},
  };
  PyType_Spec spec{};
  spec.name = qualified_name;
  spec.basicsize = sizeof(Instance);
  spec.flags = Py_TPFLAGS_DEFAULT | Py_TPFLAGS_BASETYPE | Py_TPFLAGS_HAVE_GC;
  spec.slots = slots;
  Object type = Object::own(PyType_FromModuleAndSpec(module, &spec, nullptr));
  const Object module_name = Object::own(PyModule_GetNameObject(module));
  set_attribute(type, as_text("__module__"), module_name);
  activate_special_methods(type, methods);
  return type;
}

}  // namespace quernbrook::python
