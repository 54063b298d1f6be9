#pragma once

#include <algorithm>
#include <cstddef>
#include <memory>

#include "instruction_sets.hpp"
#include "row_function.hpp"

namespace quernbrook::row_kernels {

template <class Operation>
QUERNBROOK_WIDEST_REGISTERS void compute_cells(Operation operation, const double* __restrict x,
                                               double* __restrict result,
                                               std::ptrdiff_t count) noexcept {
  for (std::ptrdiff_t cell = 0; cell < count; ++cell) result[cell] = operation(x[cell]);
}

template <class Operation>
QUERNBROOK_WIDEST_REGISTERS void compute_cells(Operation operation, const double* __restrict x,
                                               const double* __restrict y,
                                               double* __restrict result,
                                               std::ptrdiff_t count) noexcept {
  for (std::ptrdiff_t cell = 0; cell < count; ++cell) result[cell] = operation(x[cell], y[cell]);
}

template <class Operation>
QUERNBROOK_WIDEST_REGISTERS void compute_cells(Operation operation, const double* __restrict x,
                                               const double* __restrict y,
                                               const double* __restrict z,
                                               double* __restrict result,
                                               std::ptrdiff_t count) noexcept {
  for (std::ptrdiff_t cell = 0; cell < count; ++cell) {
    result[cell] = operation(x[cell], y[cell], z[cell]);
  }
}

/// An operation on single cells as a function of rows.
template <class Operation, std::size_t arity>
class CellFunction final : public RowFunction {
 public:
  std::size_t argument_count() const noexcept override { return arity; }

  void run(const Rows* arguments, std::ptrdiff_t row_count, std::ptrdiff_t column_count,
           double* result) override {
    // Rows without gaps between them are one long row.
    if (std::all_of(arguments, arguments + arity,
                    [=](const Rows& rows) { return rows.stride == column_count; })) {
      column_count *= row_count;
      row_count = 1;
    }
    for (std::ptrdiff_t row = 0; row < row_count; ++row) {
      double* target = result + row * column_count;
      if constexpr (arity == 1) {
        compute_cells(Operation{}, arguments[0].row(row), target, column_count);
      } else if constexpr (arity == 2) {
        compute_cells(Operation{}, arguments[0].row(row), arguments[1].row(row), target,
                      column_count);
      } else {
        compute_cells(Operation{}, arguments[0].row(row), arguments[1].row(row),
                      arguments[2].row(row), target, column_count);
      }
    }
  }
};

template <class Operation, std::size_t arity>
std::unique_ptr<RowFunction> make_cells() {
  return std::make_unique<CellFunction<Operation, arity>>();
}

}  // namespace quernbrook::row_kernels
