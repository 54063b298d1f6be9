#pragma once

#include <cstddef>

namespace quernbrook::kernels {

/// A row of doubles, read where it lies.
struct RowView {
  const double* cells = nullptr;
  std::ptrdiff_t stride = 0;  // in doubles
  std::ptrdiff_t columns = 0;
};

/// A matrix of doubles, of any order and stride, read where it lies.
struct MatrixView {
  const double* cells = nullptr;
  std::ptrdiff_t row_stride = 0;  // in doubles, as is the next
  std::ptrdiff_t column_stride = 0;
  std::ptrdiff_t rows = 0;
  std::ptrdiff_t columns = 0;

  RowView row(std::ptrdiff_t number) const noexcept {
    return {cells + number * row_stride, column_stride, columns};
  }
};

/// Copies a row into contiguous cells.
void copy_row(const RowView& source, double* target) noexcept;

/// True if the row touches the `count` doubles from `begin` on.
bool overlaps(const RowView& row, const double* begin, std::ptrdiff_t count) noexcept;

}  // namespace quernbrook::kernels
