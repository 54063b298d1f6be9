#include "python/attribute_iterator.hpp"

namespace quernbrook::python {
namespace {

struct AttributeIterator {
  PyObject_HEAD
  PyObject* object;  // null once exhausted
  PyObject* names[2];
  int place;
};

AttributeIterator* as_iterator(PyObject* self) {
  return reinterpret_cast<AttributeIterator*>(self);
}

PyObject* AttributeIterator_next(PyObject* self) {
  AttributeIterator* iterator = as_iterator(self);
  if (iterator->object == nullptr) return nullptr;
  const Object object = Object::share(iterator->object);
  PyObject* name = iterator->place < 2 ? iterator->names[iterator->place] : nullptr;
  ++iterator->place;
  PyObject* value = name == nullptr ? nullptr : PyObject_GetAttr(object, name);
  // Like a generator, it is over after its last item and after a failure.
  if (value == nullptr) Py_CLEAR(iterator->object);
  return value;
}

int AttributeIterator_traverse(PyObject* self, visitproc visit, void* arg) {
  Py_VISIT(Py_TYPE(self));
  Py_VISIT(as_iterator(self)->object);
  return 0;
}

int AttributeIterator_clear(PyObject* self) {
  Py_CLEAR(as_iterator(self)->object);
  return 0;
}

void AttributeIterator_dealloc(PyObject* self) {
  PyTypeObject* type = Py_TYPE(self);
  PyObject_GC_UnTrack(self);
  AttributeIterator_clear(self);
  for (PyObject* name : as_iterator(self)->names) Py_XDECREF(name);
  type->tp_free(self);
  Py_DECREF(type);
}

}  // namespace

Object make_attribute_iterator_class(PyObject* module) {
  PyType_Slot slots[] = {
      {Py_tp_iter, reinterpret_cast<void*>(PyObject_SelfIter)},
      {Py_tp_iternext, reinterpret_cast<void*>(AttributeIterator_next)},
      {Py_tp_traverse, reinterpret_cast<void*>(AttributeIterator_traverse)},
      {Py_tp_clear, reinterpret_cast<void*>(AttributeIterator_clear)},
      {Py_tp_dealloc, reinterpret_cast<void*>(AttributeIterator_dealloc)},
      {0, nullptr},
  };
  PyType_Spec spec{};
  spec.name = "expression_evaluator._AttributeIterator";
  spec.basicsize = sizeof(AttributeIterator);
  spec.flags = Py_TPFLAGS_DEFAULT | Py_TPFLAGS_HAVE_GC | Py_TPFLAGS_DISALLOW_INSTANTIATION;
  spec.slots = slots;
  return Object::own(PyType_FromModuleAndSpec(module, &spec, nullptr));
}

Object attribute_iterator(PyObject* iterator_class, PyObject* object, PyObject* first,
                          PyObject* second) {
  auto* type = reinterpret_cast<PyTypeObject*>(iterator_class);
  Object self = Object::own(type->tp_alloc(type, 0));
  AttributeIterator* iterator = as_iterator(self);
  iterator->object = Py_NewRef(object);
  iterator->names[0] = Py_NewRef(first);
  iterator->names[1] = Py_NewRef(second);
  iterator->place = 0;
  return self;
}

}  // namespace quernbrook::python
