#pragma once

#include <cmath>

#include "panels.hpp"
#include "time_functions.hpp"

namespace row_kernel_tests {

inline double unit_in_last_place(double value) {
  const double size = std::fabs(value);
  return std::nextafter(size, infinity) - size;
}

/// Within 4 units in the last place, and as many of what the value is made of where that cancels.
inline bool is_close(double actual, const Expected& expected) {
  const auto rounded = static_cast<double>(expected.value);
  if (std::isnan(rounded)) return std::isnan(actual);
  if (!std::isfinite(rounded)) return actual == rounded;
  if (!std::isfinite(actual)) return false;
  const Wide error = actual - expected.value;
  const Wide allowed = 4 * static_cast<Wide>(unit_in_last_place(rounded)) +
                       4 * static_cast<Wide>(0x1p-53) * expected.scale;
  return -allowed <= error && error <= allowed;
}

}  // namespace row_kernel_tests
