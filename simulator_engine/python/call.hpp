#pragma once

#include <array>
#include <concepts>

#include "python/finalization.hpp"
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
  return Object::own(entered([&] {
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
  return Object::own(entered([&] {
    return PyObject_Vectorcall(callable, stack.data() + 1,
                               positional | PY_VECTORCALL_ARGUMENTS_OFFSET, names);
  }));
}

/// `object.name(*arguments)`.
template <Reference... Arguments>
Object call_method(PyObject* object, PyObject* name, const Arguments&... arguments) {
  std::array<PyObject*, sizeof...(Arguments) + 2> stack{nullptr, object,
                                                        static_cast<PyObject*>(arguments)...};
  return Object::own(entered([&] {
    return PyObject_VectorcallMethod(name, stack.data() + 1,
                                     (sizeof...(Arguments) + 1) | PY_VECTORCALL_ARGUMENTS_OFFSET,
                                     nullptr);
  }));
}

}  // namespace quernbrook::python
