#include <doctest/doctest.h>

#include <algorithm>
#include <iterator>

#include "kernels/universe_mask.hpp"
#include "matrix.hpp"

namespace kernel_tests {
namespace {

constexpr double data[] = {1.0, 2.0, 3.0, 4.0, nan, -0.0};
constexpr double universe[] = {1.0, 0.0, nan, -0.0, 1.0, 5e-324};
constexpr double masked[] = {1.0, nan, nan, nan, nan, -0.0};

}  // namespace

TEST_CASE("universe mask: zero and NaN are inactive, anything else is active") {
  double result[6];
  quernbrook::kernels::mask_universe({data, 1, 6}, {universe, 1, 6}, result);
  CHECK(std::equal(std::begin(result), std::end(result), std::begin(masked), same_bits));
}

TEST_CASE("universe mask: strides may be negative") {
  double result[6];
  quernbrook::kernels::mask_universe({data + 5, -1, 6}, {universe + 5, -1, 6}, result);
  std::reverse(std::begin(result), std::end(result));
  CHECK(std::equal(std::begin(result), std::end(result), std::begin(masked), same_bits));
}

TEST_CASE("universe mask: the result may be the data") {
  double cells[6];
  std::copy(std::begin(data), std::end(data), std::begin(cells));
  quernbrook::kernels::mask_universe({cells, 1, 6}, {universe, 1, 6}, cells);
  CHECK(std::equal(std::begin(cells), std::end(cells), std::begin(masked), same_bits));
}

}  // namespace kernel_tests
