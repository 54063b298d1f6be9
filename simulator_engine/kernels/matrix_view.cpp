#include "kernels/matrix_view.hpp"

#include <algorithm>

namespace quernbrook::kernels {

void copy_row(const RowView& source, double* target) noexcept {
  if (source.stride == 1) {
    std::copy_n(source.cells, source.columns, target);
    return;
  }
  for (std::ptrdiff_t column = 0; column < source.columns; ++column) {
    target[column] = source.cells[column * source.stride];
  }
}

bool overlaps(const RowView& row, const double* begin, std::ptrdiff_t count) noexcept {
  if (row.columns == 0) return false;
  const double* last = row.cells + row.stride * (row.columns - 1);
  return std::min(row.cells, last) < begin + count && begin <= std::max(row.cells, last);
}

}  // namespace quernbrook::kernels
