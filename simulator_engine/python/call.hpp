#pragma once

#include <array>
#include <concepts>

#include "python/calling_python.hpp"
#include "python/object.hpp"

namespace quernbrook::python {

template <class T>
concept Reference = std::convertible_to<T, PyObject*>;

/// `callable(*arguments)`.
template <Reference... Arguments>
Object call(PyObject* callable, const Arguments&... arguments) {
  // The free place in front lets a bound method put its instance there without a copy.
  std::array<PyObject*, sizeof...(Arguments) + 1> stack{nullptr,
                                                        static_cast<PyObject*>(arguments)...};
  return Object::steal(calling_python([&] {
    return PyObject_Vectorcall(callable, stack.data() + 1,
                               sizeof...(Arguments) | PY_VECTORCALL_ARGUMENTS_OFFSET, nullptr);
  }));
}

/// `callable(*arguments)` whose last arguments are named by the tuple `names`.
template <Reference... Arguments>
Object call_named(PyObject* callable, PyObject* names, const Arguments&... arguments) {
  std::array<PyObject*, sizeof...(Arguments) + 1> stack{nullptr,
                                                        static_cast<PyObject*>(arguments)...};
  const auto positional = sizeof...(Arguments) - static_cast<std::size_t>(PyTuple_GET_SIZE(names));
  return Object::steal(calling_python([&] {
    return PyObject_Vectorcall(callable, stack.data() + 1,
                               positional | PY_VECTORCALL_ARGUMENTS_OFFSET, names);
  }));
}

/// `object.name(*arguments)`.
template <Reference... Arguments>
Object call_method(PyObject* object, PyObject* name, const Arguments&... arguments) {
  std::array<PyObject*, sizeof...(Arguments) + 2> stack{nullptr, object,
                                                        static_cast<PyObject*>(arguments)...};
  return Object::steal(calling_python([&] {
    return PyObject_VectorcallMethod(name, stack.data() + 1,
                                     (sizeof...(Arguments) + 1) | PY_VECTORCALL_ARGUMENTS_OFFSET,
                                     nullptr);
  }));
}

/// A callable that is called again and again with arguments on a stack. One whose class is written
/// in Python is called through its function, as the interpreter would do after two more look-ups.
class CallTarget {
 public:
  /// That many before the arguments are the call's own to use.
  static constexpr std::size_t free_places = 2;

  /// The name is "__call__", interned.
  CallTarget(PyObject* callable, PyObject* call_name);

  /// The result of `callable(*arguments)`, the last of which are named by the tuple `names` unless
  /// it is null; empty where it failed.
  Object call(PyObject** arguments, std::size_t positional, PyObject* names) const;

 private:
  PyObject* callable_;
  Object function_;  // of `__call__`, else empty
};

/// True for the module function that the definition makes.
inline bool is_native_function(PyObject* callable, const PyMethodDef& definition) {
  return PyCFunction_CheckExact(callable) &&
         PyCFunction_GET_FUNCTION(callable) == definition.ml_meth;
}

/// `callable(*arguments, **keywords)` with a tuple and a dict.
inline Object call_with(PyObject* callable, PyObject* arguments, PyObject* keywords) {
  return Object::steal(
      calling_python([&] { return PyObject_Call(callable, arguments, keywords); }));
}

/// `importlib.import_module(name)` of a module that is no part of a package under construction.
inline Object import_module(const char* name) {
  return Object::steal(calling_python([&] { return PyImport_ImportModule(name); }));
}

}  // namespace quernbrook::python
