#pragma once

#include "python/array_form.hpp"

namespace quernbrook::evaluation {

/// The run's registers: one row of N_alloc doubles a node. Bound instances get views of it and can
/// reach the whole block through them; the run itself works on the raw rows. Each way to a row
/// first makes sure that foreign code has not taken the block's memory or form away.
class Registers {
 public:
  explicit Registers(python::Object array)
      : array_(std::move(array)), form_(python::form_of(array_)) {}

  /// To be used before foreign code may run.
  double* row(std::size_t number) const {
    if (python::form_of(array_) != form_) refuse();
    return python::doubles(array_) + static_cast<npy_intp>(number) * form_.columns;
  }
  std::size_t row_bytes() const noexcept {
    return static_cast<std::size_t>(form_.columns) * sizeof(double);
  }
  npy_intp columns() const noexcept { return form_.columns; }
  npy_intp cell_count() const noexcept { return form_.rows * form_.columns; }
  PyObject* array() const noexcept { return array_; }

  /// A new view of one register, as `registers[number, :]`.
  python::Object view(std::size_t number) const;
  /// `registers[number, :] = value`, with all of NumPy's rules for what may be assigned.
  void assign(std::size_t number, PyObject* value) const;

 private:
  [[noreturn]] void refuse() const;

  python::Object array_;
  python::ArrayForm form_;
};

}  // namespace quernbrook::evaluation
