#include "python/object.hpp"

#include "python/calling_python.hpp"

namespace quernbrook::python {

void end_object(PyObject* object) noexcept {
  calling_python([object] { Py_DECREF(object); });
}

}  // namespace quernbrook::python
