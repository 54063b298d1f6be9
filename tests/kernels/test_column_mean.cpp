#include <doctest/doctest.h>

#include "fast_paths/kernels/column_mean.hpp"
#include "matrix.hpp"

namespace kernel_tests {
namespace {

bool column_mean(const Matrix& block, std::vector<double>& result) {
  result.assign(block.columns, -1.0);
  return quernbrook::kernels::column_mean(block.data(), block.rows, block.columns, result.data());
}

}  // namespace

TEST_CASE("column mean: rows are added in their order") {
  std::vector<double> result;
  REQUIRE(column_mean(Matrix(3, 2, {1e16, 1.0, 1.0, nan, -1e16, 2.0}), result));
  CHECK(same_bits(result[0], (1e16 + 1.0 - 1e16) / 3.0));
  CHECK(same_bits(result[1], nan));
}

TEST_CASE("column mean: more columns than a tile") {
  const Matrix block = random_matrix(4, 2500, 1, 0.0);
  std::vector<double> result;
  REQUIRE(column_mean(block, result));
  for (std::size_t column = 0; column < block.columns; ++column) {
    double sum = 0.0;
    for (std::size_t row = 0; row < block.rows; ++row) sum += block.at(row, column);
    CHECK(same_bits(result[column], sum / 4.0));
  }
}

TEST_CASE("column mean: declines where bits or warnings depend on the way of adding") {
  const auto odd = std::bit_cast<double>(std::uint64_t{0xfff8000000000001});
  std::vector<double> result;
  CHECK_FALSE(column_mean(Matrix(2, 2, {1e308, 1.0, 1e308, 1.0}), result));
  CHECK_FALSE(column_mean(Matrix(2, 2, {infinity, 1.0, -infinity, 1.0}), result));
  CHECK_FALSE(column_mean(Matrix(2, 2, {odd, 1.0, nan, 1.0}), result));
}

}  // namespace kernel_tests
