#include "fast_paths/kernels/universe_mask.hpp"

#include <cmath>
#include <limits>

namespace quernbrook::kernels {
namespace {

inline double masked(double value, double universe) noexcept {
  const bool inactive = universe == 0.0 || std::isnan(universe);
  return inactive ? std::numeric_limits<double>::quiet_NaN() : value;
}

}  // namespace

void mask_universe(const double* data, std::ptrdiff_t data_step, const double* universe,
                   std::ptrdiff_t universe_step, double* result, std::size_t count) noexcept {
  if (data_step == 1 && universe_step == 1) {
    // Spelt apart from the strided loop so that the compiler vectorises it.
    for (std::size_t place = 0; place < count; ++place) {
      result[place] = masked(data[place], universe[place]);
    }
    return;
  }
  for (std::size_t place = 0; place < count; ++place) {
    result[place] = masked(*data, *universe);
    data += data_step;
    universe += universe_step;
  }
}

}  // namespace quernbrook::kernels
