#include "expression_evaluator/registers.hpp"

#include "python/error.hpp"

namespace quernbrook::evaluation {

using namespace python;

Registers::Registers(Object array, npy_intp columns)
    : array_(std::move(array)),
      data_(doubles(array_)),
      stride_(static_cast<std::size_t>(columns)),
      rows_(PyArray_DIM(as_array(array_), 0)),
      flags_(PyArray_FLAGS(as_array(array_))),
      dtype_(PyArray_DESCR(as_array(array_))) {}

Object Registers::view(std::size_t number) const {
  require_intact();
  return row_view(array_, static_cast<npy_intp>(number));
}

void Registers::refuse() const {
  if (has_its_form() && !PyArray_ISWRITEABLE(as_array(array_))) {
    raise_text(PyExc_ValueError, "assignment destination is read-only");
  }
  raise_text(PyExc_RuntimeError,
             "a function changed the form of the run's registers while it ran; functions may read "
             "and write the rows that they are given, but not reshape the array behind them");
}

}  // namespace quernbrook::evaluation
