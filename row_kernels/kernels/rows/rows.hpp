#pragma once

#include <memory>

#include "row_function.hpp"

// Functions across a row. A NaN cell stays NaN and counts for nothing. Sums are NumPy's, pairwise.
namespace quernbrook::row_kernels {

/// Ranks from 0 (smallest) to 1 (largest), (place - 1) / (numbers - 1); equal numbers share their
/// average. The only number of a row ranks `lone`.
std::unique_ptr<RowFunction> make_rank(double lone);

/// The row less its mean: zeros where all numbers are equal.
std::unique_ptr<RowFunction> make_demean();
/// The same in population standard deviations; zeros where all numbers are equal.
std::unique_ptr<RowFunction> make_z_score();
/// The same for each group of columns by itself. The second argument is the number of each column's
/// group; NaN is no group, and gives NaN.
std::unique_ptr<RowFunction> make_group_demean();

/// The row times a factor, so that absolute values sum to `total`. A row of zeros stays as it is,
/// but with `finite` it is NaN, and so is an infinity, which then counts for nothing.
std::unique_ptr<RowFunction> make_scale(double total, bool finite);

/// The lowest and the highest `share` of the numbers, rounded down, become the nearest of the rest.
/// Throws std::invalid_argument for a share that is negative, or a half and more.
std::unique_ptr<RowFunction> make_winsorize(double share);

/// 1 for the highest (or lowest) `share` of the numbers, rounded up, and all that equal one of
/// them; 0 for the rest. Throws std::invalid_argument for a share of zero and less, or above 1.
std::unique_ptr<RowFunction> make_top_share(double share);
std::unique_ptr<RowFunction> make_bottom_share(double share);

}  // namespace quernbrook::row_kernels
