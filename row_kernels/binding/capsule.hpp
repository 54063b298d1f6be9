#pragma once

#include <nanobind/nanobind.h>

#include <memory>

namespace quernbrook::row_kernels::binding {

namespace nb = nanobind;

/// A capsule that holds a kernel's structure, and with it the instance that its state belongs to.
template <class Kernel>
nb::object capsule_of(const Kernel& kernel, nb::handle instance, const char* name) {
  struct Kept {
    Kernel kernel;  // first: the capsule's pointer is its address
    nb::object instance;
  };
  auto kept = std::make_unique<Kept>(Kept{kernel, nb::borrow(instance)});
  PyObject* capsule = PyCapsule_New(kept.get(), name, [](PyObject* self) {
    delete static_cast<Kept*>(PyCapsule_GetPointer(self, PyCapsule_GetName(self)));
  });
  if (capsule == nullptr) throw nb::python_error();
  static_cast<void>(kept.release());
  return nb::steal(capsule);
}

}  // namespace quernbrook::row_kernels::binding
