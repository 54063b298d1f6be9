#include "kernels/universe_mask.hpp"

#include <cmath>
#include <limits>

namespace quernbrook::kernels {
namespace {

inline double masked(double value, double universe) noexcept {
  const bool inactive = universe == 0.0 || std::isnan(universe);
  return inactive ? std::numeric_limits<double>::quiet_NaN() : value;
}

}  // namespace

void mask_universe(const RowView& data, const RowView& universe, double* result) noexcept {
  if (data.stride == 1 && universe.stride == 1) {
    // Spelt apart from the strided loop so that the compiler vectorises it.
    for (std::ptrdiff_t column = 0; column < data.columns; ++column) {
      result[column] = masked(data.cells[column], universe.cells[column]);
    }
    return;
  }
  for (std::ptrdiff_t column = 0; column < data.columns; ++column) {
    result[column] =
        masked(data.cells[column * data.stride], universe.cells[column * universe.stride]);
  }
}

}  // namespace quernbrook::kernels
