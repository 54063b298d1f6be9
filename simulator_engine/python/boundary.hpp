#pragma once

#include <exception>
#include <new>

#include "python/arguments.hpp"
#include "python/calling_python.hpp"
#include "python/object.hpp"

// The one place where C++ exceptions become Python errors. A module's state is a pointer to State.
namespace quernbrook::python {

template <class Body>
PyObject* guarded(Body&& body) noexcept {
  try {
    return body().release();
  } catch (const ErrorSet&) {
    return nullptr;
  } catch (const std::bad_alloc&) {
    return calling_python([] { return PyErr_NoMemory(); });
  } catch (const std::exception& error) {
    calling_python([&] { PyErr_SetString(PyExc_SystemError, error.what()); });
    return nullptr;
  }
}

/// Adapts `Object function(State&, const CallArguments&)` to a module function.
template <class State, Object (*Function)(State&, const CallArguments&)>
PyObject* module_function(PyObject* module, PyObject* const* values, Py_ssize_t count,
                          PyObject* names) noexcept {
  return guarded([&] {
    auto& state = **static_cast<State**>(PyModule_GetState(module));
    return Function(state, CallArguments{values, count, names});
  });
}

/// Adapts `Object method(State&, PyObject* self, const CallArguments&)` to a method that reaches
/// its module's state through the class that defines it.
template <class State, Object (*Method)(State&, PyObject*, const CallArguments&)>
PyObject* class_method(PyObject* self, PyTypeObject* defining_class, PyObject* const* values,
                       Py_ssize_t count, PyObject* names) noexcept {
  return guarded([&] {
    auto& state = **static_cast<State**>(PyType_GetModuleState(defining_class));
    return Method(state, self, CallArguments{values, count, names});
  });
}

template <auto Function>
PyCFunction as_function_pointer() {
  return reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)(void)>(Function));
}

}  // namespace quernbrook::python
