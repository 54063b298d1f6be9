#pragma once

#include "time/plan.hpp"

namespace quernbrook::row_kernels {

/// The loops of all functions along time.
struct Statistics {
  TileLoops delay;
  TileLoops delta;
  TileLoops sum;
  TileLoops mean;
  TileLoops maximum;
  TileLoops minimum;
  TileLoops maximum_age;
  TileLoops minimum_age;
  TileLoops lone_value;
  TileLoops lone_pair;
  CentredLoops variance;
  CentredLoops standard_deviation;
  CentredLoops z_score;
  CentredLoops covariance;
  CentredLoops correlation;
  CentredLoops skewness;
  CentredLoops kurtosis;
  TileLoops decaying_mean;
  TileLoops slope;
  TileLoops intercept;
  TileLoops residual;
  TileLoops product;
  TileLoops exponential_mean;
  TileLoops rank;
  TileLoops quantile;
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
