#include <doctest/doctest.h>

#include <algorithm>

#include "kernels/column_mean.hpp"
#include "matrix.hpp"
#include "plain_versions.hpp"

namespace kernel_tests {
namespace {

bool column_mean(const Matrix& block, std::vector<double>& result, std::size_t at_once = 100) {
  quernbrook::kernels::ColumnMean mean;
  result.assign(block.columns, -1.0);
  mean.begin(block.columns);
  for (std::size_t row = 0; row < block.rows; row += at_once) {
    mean.add(block.data() + row * block.columns, std::min(at_once, block.rows - row));
  }
  mean.end();
  return mean.divide(block.data(), block.rows, result.data());
}

}  // namespace

TEST_CASE("column mean: rows are added in their order") {
  std::vector<double> result;
  REQUIRE(column_mean(Matrix(3, 2, {1e16, 1.0, 1.0, nan, -1e16, 2.0}), result));
  CHECK(same_bits(result[0], (1e16 + 1.0 - 1e16) / 3.0));
  CHECK(same_bits(result[1], nan));
}

TEST_CASE("column mean: rows added some at a time, columns in strips and by themselves") {
  for (const std::size_t columns : {1, 15, 16, 17, 2500}) {
    for (const std::size_t at_once : {1, 3, 16, 50}) {
      const Matrix block = random_matrix(40, columns, 1, 0.0);
      std::vector<double> result;
      REQUIRE(column_mean(block, result, at_once));
      const std::vector<double> expected = plain_column_mean(block);
      CHECK(std::equal(result.begin(), result.end(), expected.begin(), expected.end(), same_bits));
    }
  }
}

TEST_CASE("column mean: begins anew") {
  quernbrook::kernels::ColumnMean mean;
  const Matrix loud(2, 2, {1e308, 1.0, 1e308, 1.0});
  const Matrix block(1, 3, {1.0, 2.0, 3.0});
  std::vector<double> result(3, -1.0);
  for (const Matrix* one : {&loud, &block}) {
    mean.begin(one->columns);
    mean.add(one->data(), one->rows);
    mean.end();
  }
  REQUIRE(mean.divide(block.data(), 1, result.data()));
  CHECK(result == std::vector<double>{1.0, 2.0, 3.0});
}

TEST_CASE("column mean: declines where bits or warnings depend on the way of adding") {
  const auto odd = std::bit_cast<double>(std::uint64_t{0xfff8000000000001});
  std::vector<double> result;
  CHECK_FALSE(column_mean(Matrix(2, 2, {1e308, 1.0, 1e308, 1.0}), result));
  CHECK_FALSE(column_mean(Matrix(2, 2, {infinity, 1.0, -infinity, 1.0}), result));
  CHECK_FALSE(column_mean(Matrix(2, 2, {odd, 1.0, nan, 1.0}), result));
}

}  // namespace kernel_tests
