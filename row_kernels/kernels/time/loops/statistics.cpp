// Compiled once for each instruction set; see lanes.hpp.
#include "time/loops/statistics.hpp"

#include "time/loops/comovement.hpp"
#include "time/loops/direct_loops.hpp"
#include "time/loops/ends.hpp"
#include "time/loops/exponential.hpp"
#include "time/loops/extremes.hpp"
#include "time/loops/lone_value.hpp"
#include "time/loops/product.hpp"
#include "time/loops/quantile.hpp"
#include "time/loops/rank.hpp"
#include "time/loops/shape.hpp"
#include "time/loops/spread.hpp"
#include "time/loops/sum.hpp"
#include "time/loops/trend.hpp"

namespace quernbrook::row_kernels::QUERNBROOK_INSTRUCTION_SET {

const Statistics statistics{
    .delay = end_loops<Delay>,
    .delta = end_loops<Delta>,
    .concordance = end_loops<Concordance>,
    .sum = block_loops<Sum>,
    .mean = block_loops<Mean>,
    .maximum = block_loops<Maximum>,
    .minimum = block_loops<Minimum>,
    .maximum_age = block_loops<MaximumAge>,
    .minimum_age = block_loops<MinimumAge>,
    .lone_value = block_loops<LoneValue<1>>,
    .lone_pair = block_loops<LoneValue<2>>,
    .decaying_mean = block_loops<DecayingMean>,
    .slope = block_loops<Slope>,
    .intercept = block_loops<Intercept>,
    .residual = block_loops<Residual>,
    .product = block_loops<Product>,
    .exponential_mean = block_loops<ExponentialMean>,
    .rank = rank_loops,
    .quantile = quantile_loops,
    .in_parts =
        {
            .variance = block_loops<Variance>,
            .standard_deviation = block_loops<StandardDeviation>,
            .z_score = block_loops<ZScore>,
            .covariance = block_loops<Covariance>,
            .correlation = block_loops<Correlation>,
            .skewness = block_loops<Skewness>,
            .kurtosis = block_loops<Kurtosis>,
        },
    .directly =
        {
            .variance = direct_loops<Variance>,
            .standard_deviation = direct_loops<StandardDeviation>,
            .z_score = direct_loops<ZScore>,
            .covariance = direct_loops<Covariance>,
            .correlation = direct_loops<Correlation>,
            .skewness = direct_loops<Skewness>,
            .kurtosis = direct_loops<Kurtosis>,
        },
};

}  // namespace quernbrook::row_kernels::QUERNBROOK_INSTRUCTION_SET
