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
