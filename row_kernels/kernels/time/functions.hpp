#pragma once

#include <cstddef>
#include <memory>

#include "row_function.hpp"

namespace quernbrook::row_kernels {

/// Functions along time, each column by itself. A value is that of the newest `window` rows, the
/// newest included; it is NaN where they hold a NaN and until there are as many. All throw
/// std::invalid_argument for a window below 1 or above 2^48.
///
/// Sums are in twice the working precision, deviations are measured from a centre near the mean,
/// and nothing is ever subtracted that has left the window. Values are within 4 units in the last
/// place of the exact ones, or of what they are made of where that cancels, whatever came before.
/// Infinities follow IEEE arithmetic. Powers of deviations that leave the range of doubles give
/// NaN: squares from 1e154, cubes from 1e102, fourth powers from 1e77. Digits are lost, up to all
/// of them, where they get below it: of squares from 1e-154, cubes from 1e-102, fourth powers from
/// 1e-77.
///
/// A row costs the same whatever the window is, but for rank and quantile. In every 2 sqrt(window)
/// rows, of long windows, one does the work that is left for as many; a call of one row then takes
/// up to 20 times as long. They hold the window's rows and about 4 sqrt(window) aggregates.

/// Whether the divisor of squared deviations is the number of rows, or one less.
enum class Of { population, sample };

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

/// Exactly 0 where all values are equal; of a sample of one row NaN.
std::unique_ptr<WindowFunction> make_variance(std::size_t window, Of divisor = Of::population);
std::unique_ptr<WindowFunction> make_standard_deviation(std::size_t window,
                                                        Of divisor = Of::population);

/// The newest value less the mean, in population standard deviations; 0 where all are equal.
std::unique_ptr<WindowFunction> make_z_score(std::size_t window);

/// Of two arguments.
std::unique_ptr<WindowFunction> make_covariance(std::size_t window, Of divisor = Of::population);
/// NaN where all values of an argument are equal; of two rows exactly 1 or -1.
std::unique_ptr<WindowFunction> make_correlation(std::size_t window);

/// The third standardized moment, and the fourth less 3; or Fisher's adjusted ones for samples,
/// which need windows of 3 and 4. NaN where all values are equal.
std::unique_ptr<WindowFunction> make_skewness(std::size_t window, Of moments = Of::population);
std::unique_ptr<WindowFunction> make_kurtosis(std::size_t window, Of moments = Of::population);

/// The mean with weights that fall linearly with age, from `window` for the newest row to 1.
std::unique_ptr<WindowFunction> make_decaying_mean(std::size_t window);

/// The mean with weights that fall with age in the ratio 1 - 2 / (window + 1).
std::unique_ptr<WindowFunction> make_exponential_mean(std::size_t window);

std::unique_ptr<WindowFunction> make_product(std::size_t window);

/// Rank of the newest value from 0 (the least) to 1, the mean rank where values are equal. NaN for
/// a window of 1.
std::unique_ptr<WindowFunction> make_rank(std::size_t window);

/// The value below which a `share` of the window lies, between its neighbours where there is none.
/// Throws std::invalid_argument for a `share` that isn't within 0 and 1.
std::unique_ptr<WindowFunction> make_quantile(std::size_t window, double share);

/// Of the line of least squares over the rows: its rise a row, its value at the oldest row, and the
/// newest value less the line's. A window of 1 has no slope (NaN); its line is level.
std::unique_ptr<WindowFunction> make_slope(std::size_t window);
std::unique_ptr<WindowFunction> make_intercept(std::size_t window);
std::unique_ptr<WindowFunction> make_residual(std::size_t window);

}  // namespace quernbrook::row_kernels
