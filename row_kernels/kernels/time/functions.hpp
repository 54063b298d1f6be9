#pragma once

#include <cstddef>
#include <memory>

#include "row_function.hpp"

namespace quernbrook::row_kernels {

/// Functions along time, each column by itself. A value is that of the newest `window` rows, the
/// newest included; it is NaN where they hold a NaN and until there are as many. All throw
/// std::invalid_argument for a window below 1.

/// The value of `window` rows ago, and the newest value less that. They remember one row more.
std::unique_ptr<WindowFunction> make_delay(std::size_t window);
std::unique_ptr<WindowFunction> make_delta(std::size_t window);

std::unique_ptr<WindowFunction> make_sum(std::size_t window);
std::unique_ptr<WindowFunction> make_mean(std::size_t window);
std::unique_ptr<WindowFunction> make_maximum(std::size_t window);
std::unique_ptr<WindowFunction> make_minimum(std::size_t window);

/// Rows since the maximum and the minimum: 0 for the newest row, the earliest of equal ones.
std::unique_ptr<WindowFunction> make_maximum_age(std::size_t window);
std::unique_ptr<WindowFunction> make_minimum_age(std::size_t window);

}  // namespace quernbrook::row_kernels
