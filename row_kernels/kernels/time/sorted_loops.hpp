#pragma once

#include "time/plan.hpp"

namespace quernbrook::row_kernels {

/// The same as the rank and quantile loops over lines of columns, but column by column with a
/// sorted range for each: what takes less time in long windows.
extern const TileLoops sorted_rank_loops;
extern const TileLoops sorted_quantile_loops;

}  // namespace quernbrook::row_kernels
