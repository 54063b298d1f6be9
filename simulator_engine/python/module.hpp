#pragma once

#include "python/boundary.hpp"
#include "python/object.hpp"

// The life of an extension module whose state is a pointer to a State.
namespace quernbrook::python {

template <class State>
State*& state_of(PyObject* module) {
  return *static_cast<State**>(PyModule_GetState(module));
}

/// Adapts `void fill(PyObject* module, State&)` to the module's execution.
template <class State, void (*Fill)(PyObject*, State&)>
int execute_module(PyObject* module) noexcept {
  const auto body = [&] {
    state_of<State>(module) = new State{};
    Fill(module, *state_of<State>(module));
    return Object::none();
  };
  const Object done = Object::steal_or_empty(guarded(body));
  return done.empty() ? -1 : 0;
}

/// Visits what the state holds of the module's own cycle: `State::owned()` is that object.
template <class State>
int traverse_module(PyObject* module, visitproc visit, void* arg) {
  const State* state = state_of<State>(module);
  if (state != nullptr) Py_VISIT(state->owned());
  return 0;
}

template <class State>
void free_module(void* module) {
  delete state_of<State>(static_cast<PyObject*>(module));
}

inline PyObject* define(PyModuleDef& definition) { return PyModuleDef_Init(&definition); }

inline Object module_globals(PyObject* module) { return Object::borrow(PyModule_GetDict(module)); }

inline void add_functions(PyObject* module, PyMethodDef* table) {
  checked(calling_python([&] { return PyModule_AddFunctions(module, table); }));
}

}  // namespace quernbrook::python
