#pragma once

#include "time/plan.hpp"

namespace quernbrook::row_kernels {

/// The loops of the statistics of deviations.
struct CentredStatistics {
  TileLoops variance;
  TileLoops standard_deviation;
  TileLoops z_score;
  TileLoops covariance;
  TileLoops correlation;
  TileLoops skewness;
  TileLoops kurtosis;
};

/// The loops of all functions along time.
struct Statistics {
  TileLoops delay;
  TileLoops delta;
  TileLoops concordance;
  TileLoops sum;
  TileLoops mean;
  TileLoops maximum;
  TileLoops minimum;
  TileLoops maximum_age;
  TileLoops minimum_age;
  TileLoops lone_value;
  TileLoops lone_pair;
  TileLoops decaying_mean;
  TileLoops slope;
  TileLoops intercept;
  TileLoops residual;
  TileLoops product;
  TileLoops exponential_mean;
  TileLoops rank;
  TileLoops quantile;
  CentredStatistics in_parts;
  /// For very short windows.
  CentredStatistics directly;
};

namespace baseline {
extern const Statistics statistics;
}
namespace avx2 {
extern const Statistics statistics;
}
namespace avx512 {
extern const Statistics statistics;
}

}  // namespace quernbrook::row_kernels
