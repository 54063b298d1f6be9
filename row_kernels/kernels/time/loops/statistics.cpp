// Compiled once for each instruction set; see lanes.hpp.
#include "time/loops/statistics.hpp"

#include "time/loops/delay.hpp"
#include "time/loops/extremes.hpp"
#include "time/loops/sum.hpp"

namespace quernbrook::row_kernels::QUERNBROOK_INSTRUCTION_SET {

const Statistics statistics{
    .delay = end_loops<Delay>,
    .delta = end_loops<Delta>,
    .sum = block_loops<Sum>,
    .mean = block_loops<Mean>,
    .maximum = block_loops<Maximum>,
    .minimum = block_loops<Minimum>,
    .maximum_age = block_loops<MaximumAge>,
    .minimum_age = block_loops<MinimumAge>,
};

}  // namespace quernbrook::row_kernels::QUERNBROOK_INSTRUCTION_SET
