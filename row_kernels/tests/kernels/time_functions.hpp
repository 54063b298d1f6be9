#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "row_function.hpp"

namespace row_kernel_tests {

using quernbrook::row_kernels::RowFunction;
using quernbrook::row_kernels::Rows;
using quernbrook::row_kernels::WindowFunction;
using quernbrook::row_kernels::WindowState;

// 113 bits of significand, under the name that the processor's compilers have for it.
#if __LDBL_MANT_DIG__ == 113
using Wide = long double;
#else
using Wide = __float128;
#endif

/// What a value should be, and what its rounding errors are measured by where terms cancel.
struct Expected {
  Wide value;
  Wide scale;
};

/// Of the values of one window, oldest first, none of them NaN; the second is of the other
/// argument.
using Definition =
    std::function<Expected(const std::vector<double>& first, const std::vector<double>& second)>;

/// A function along time and its definition, spelt out.
struct TimeFunction {
  std::string name;
  std::function<std::unique_ptr<WindowFunction>(std::size_t window)> make;
  Definition define;
  std::size_t arguments = 1;
};

const std::vector<TimeFunction>& time_functions();

}  // namespace row_kernel_tests
