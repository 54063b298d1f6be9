#include <doctest/doctest.h>

#include "kernels/rank.hpp"
#include "kernels/rolling.hpp"
#include "matrix.hpp"

// Long work stops where its pause throws, however the matrix is shaped.

namespace kernel_tests {
namespace {

struct Stopped {};

constexpr std::size_t shapes[][2] = {{400'000, 1}, {2'000, 200}, {3, 150'000}};

}  // namespace

TEST_CASE("pause: a rank can be stopped") {
  for (const auto& [rows, columns] : shapes) {
    const Matrix data = random_matrix(rows, columns, 1);
    Matrix result(rows, columns);
    const auto stop = [] { throw Stopped(); };
    CHECK_THROWS_AS(quernbrook::kernels::rank_rows(data.view(), {}, result.data(), stop), Stopped);
  }
}

TEST_CASE("pause: a rolling statistic can be stopped") {
  for (const auto& [rows, columns] : shapes) {
    const Matrix data = random_matrix(rows, columns, 1);
    Matrix result(rows, columns);
    const auto stop = [] { throw Stopped(); };
    CHECK_THROWS_AS(quernbrook::kernels::rolling(quernbrook::kernels::RollingStatistic::mean,
                                                 data.view(), 2, result.data(), stop),
                    Stopped);
  }
}

}  // namespace kernel_tests
