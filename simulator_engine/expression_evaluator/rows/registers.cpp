#include "expression_evaluator/rows/registers.hpp"

#include <cstring>

#include "python/array.hpp"
#include "python/error.hpp"

namespace quernbrook::evaluation {

using namespace python;

Object Registers::view(std::size_t number) const {
  row(number);
  return row_view(array_, static_cast<npy_intp>(number));
}

void Registers::assign(std::size_t number, PyObject* value) const {
  // What is assigned may have code of its own, which must not meet a row that can go away.
  const Object values = empty_vector(form_.columns);
  python::assign(values, value);
  std::memcpy(row(number), doubles(values), row_bytes());
}

void Registers::refuse() const {
  ArrayForm writeable = form_of(array_);
  writeable.flags = form_.flags;
  if (writeable == form_ && !is_writeable(array_)) {
    raise_text(PyExc_ValueError, "assignment destination is read-only");
  }
  raise_text(PyExc_RuntimeError,
             "a function changed the form of the run's registers while it ran; functions may read "
             "and write the rows that they are given, but not reshape the array behind them");
}

}  // namespace quernbrook::evaluation
