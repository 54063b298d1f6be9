#include "python/context_manager.hpp"

#include <initializer_list>

#include "python/containers.hpp"
#include "python/protocol.hpp"
#include "python/special_method.hpp"

namespace quernbrook::python {
namespace {

[[noreturn]] void refuse(PyObject* manager, const char* missing, const char* hint) {
#if PY_VERSION_HEX >= 0x030B0000
  (void)missing;
  raise_format(PyExc_TypeError, "'%.200s' object does not support the context manager protocol%s",
               Py_TYPE(manager)->tp_name, hint);
#else
  (void)manager;
  (void)hint;
  raise_text(PyExc_AttributeError, missing);
#endif
}

}  // namespace

ContextManager::ContextManager(PyObject* manager, PyObject* enter_name, PyObject* exit_name) {
  enter_ = special_method(manager, enter_name);
  if (enter_.empty()) refuse(manager, "__enter__", "");
  exit_ = special_method(manager, exit_name);
  if (exit_.empty()) refuse(manager, "__exit__", " (missed __exit__ method)");
  exit_arguments_ = tuple_of(Py_None, Py_None, Py_None);
  // A reference that somebody finds through the garbage collector would forbid filling it.
  PyObject_GC_UnTrack(exit_arguments_);
}

void ContextManager::enter() { call(enter_); }

void ContextManager::leave() { exit(Py_None, Py_None, Py_None); }

bool ContextManager::leave_with(const Handling& error) {
  const Object traceback = error.traceback();
  return exit(error.type(), error.value(), traceback.empty() ? Py_None : traceback.get());
}

bool ContextManager::exit(PyObject* type, PyObject* value, PyObject* traceback) {
  PyObject* arguments = exit_arguments_;
  Py_ssize_t place = 0;
  for (PyObject* argument : {type, value, traceback}) {
    checked(
        calling_python([&] { return PyTuple_SetItem(arguments, place++, Py_NewRef(argument)); }));
  }
  const Object swallows =
      Object::steal(calling_python([&] { return PyObject_Call(exit_, arguments, nullptr); }));
  return value != Py_None && truth(swallows);
}

}  // namespace quernbrook::python
