#pragma once

#include "expression_evaluator/run.hpp"
#include "python/array.hpp"

namespace quernbrook::evaluation {

/// The run's registers: one row of N_alloc doubles a node. Bound instances get views of it and can
/// reach the whole block through them; the run itself works on the raw rows.
class Registers {
 public:
  Registers(python::Object array, npy_intp columns);

  double* row(std::size_t number) const noexcept { return data_ + number * stride_; }
  std::size_t row_bytes() const noexcept { return stride_ * sizeof(double); }
  npy_intp columns() const noexcept { return static_cast<npy_intp>(stride_); }
  PyObject* array() const noexcept { return array_; }
  /// A new view of one register, as `registers[number, :]`.
  python::Object view(std::size_t number) const;

  std::size_t bytes() const noexcept { return static_cast<std::size_t>(rows_) * row_bytes(); }

  /// Raises where foreign code took the block's memory, form or writability away.
  void require_intact() const {
    if (!is_intact()) refuse();
  }

 private:
  bool has_its_form() const noexcept {
    PyArrayObject* array = python::as_array(array_);
    return PyArray_DATA(array) == data_ && PyArray_DESCR(array) == dtype_ &&
           PyArray_NDIM(array) == 2 && PyArray_DIM(array, 0) == rows_ &&
           PyArray_DIM(array, 1) == static_cast<npy_intp>(stride_);
  }
  bool is_intact() const noexcept {
    return has_its_form() && PyArray_FLAGS(python::as_array(array_)) == flags_;
  }
  [[noreturn]] void refuse() const;

  python::Object array_;
  double* data_;
  std::size_t stride_;  // in doubles
  npy_intp rows_;
  int flags_;
  PyArray_Descr* dtype_;  // NumPy's own and immortal
};

/// To be called between foreign code and the next touch of the registers.
inline void foreign_code_ran(Run& run, const Registers& registers) {
  ++run.foreign_code_count;
  registers.require_intact();
}

}  // namespace quernbrook::evaluation
