#pragma once

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
  void require_intact() const;

 private:
  python::Object array_;
  double* data_;
  std::size_t stride_;  // in doubles
  npy_intp rows_;
  int flags_;
  PyArray_Descr* dtype_;  // NumPy's own and immortal
};

}  // namespace quernbrook::evaluation
