#include <doctest/doctest.h>

#include "kernels/rolling.hpp"
#include "matrix.hpp"
#include "plain_versions.hpp"

namespace kernel_tests {
namespace {

using quernbrook::kernels::RollingStatistic;

constexpr RollingStatistic statistics[] = {
    RollingStatistic::mean, RollingStatistic::standard_deviation, RollingStatistic::z_score};

Matrix roll(RollingStatistic statistic, const Matrix& data, std::size_t window) {
  Matrix result(data.rows, data.columns);
  quernbrook::kernels::rolling(statistic, data.data(), data.row_step, data.column_step,
                               result.data(), data.rows, data.columns, window);
  return result;
}

void check_roll(const Matrix& data, std::size_t window) {
  CAPTURE(window);
  for (const RollingStatistic statistic : statistics) {
    CHECK(difference(roll(statistic, data, window), plain_rolling(statistic, data, window)) == "");
  }
}

Matrix column(std::vector<double> cells) {
  const std::size_t rows = cells.size();
  return Matrix(rows, 1, std::move(cells));
}

void check_column(RollingStatistic statistic, std::size_t window, std::vector<double> cells,
                  std::vector<double> expected) {
  CHECK(difference(roll(statistic, column(std::move(cells)), window),
                   column(std::move(expected))) == "");
}

}  // namespace

TEST_CASE("rolling: a mean needs a full window") {
  check_column(RollingStatistic::mean, 2, {1.0, 3.0, 6.0}, {nan, 2.0, 4.5});
  check_column(RollingStatistic::mean, 3, {1.0, 3.0, 5.0}, {nan, nan, 3.0});
}

TEST_CASE("rolling: a deviation divides by the window, a z-score is of the last row") {
  check_column(RollingStatistic::standard_deviation, 2, {1.0, 3.0, 9.0}, {nan, 1.0, 3.0});
  check_column(RollingStatistic::z_score, 2, {1.0, 3.0, 1.0}, {nan, 1.0, -1.0});
}

TEST_CASE("rolling: NaN blanks every window that holds it, and only those") {
  check_column(RollingStatistic::mean, 2, {1.0, 3.0, nan, 5.0, 7.0}, {nan, 2.0, nan, nan, 6.0});
  check_column(RollingStatistic::standard_deviation, 2, {nan, 5.0, 7.0}, {nan, nan, 1.0});
  check_column(RollingStatistic::z_score, 2, {nan, nan, nan}, {nan, nan, nan});
}

TEST_CASE("rolling: a constant column has no deviation and a z-score of zero") {
  check_column(RollingStatistic::standard_deviation, 2, {2.0, 2.0, 2.0}, {nan, 0.0, 0.0});
  check_column(RollingStatistic::z_score, 2, {2.0, 2.0, 2.0}, {nan, 0.0, 0.0});
  check_column(RollingStatistic::z_score, 1, {4.0, nan, -3.0}, {0.0, nan, 0.0});
}

TEST_CASE("rolling: a negative zero keeps its sign in the first full window alone") {
  check_column(RollingStatistic::mean, 2, {-0.0, -0.0, -0.0}, {nan, -0.0, 0.0});
}

TEST_CASE("rolling: an infinity spoils its column to the end") {
  for (const RollingStatistic statistic : statistics) {
    const Matrix result = roll(statistic, column({1.0, 2.0, infinity, 3.0, 4.0, 5.0}), 2);
    CHECK(std::isfinite(result.at(1, 0)));
    for (std::size_t row = 2; row < 4; ++row) {
      CHECK((statistic == RollingStatistic::mean ? result.at(row, 0) == infinity
                                                 : std::isnan(result.at(row, 0))));
    }
    CHECK(std::isnan(result.at(4, 0)));
    CHECK(std::isnan(result.at(5, 0)));
  }
}

TEST_CASE("rolling: sums beyond the range of a double") {
  check_column(RollingStatistic::mean, 3, {1e308, 1e308, 1e308}, {nan, nan, 1e308});
  check_column(RollingStatistic::standard_deviation, 2, {3e-200, 1e-200}, {nan, 1e-200});
}

TEST_CASE("rolling: any shape and window equal the plain version") {
  for (const std::size_t rows : {1, 2, 63, 64, 65, 200}) {
    for (const std::size_t columns : {0, 1, 7, 8, 9, 20}) {
      CAPTURE(rows);
      CAPTURE(columns);
      const Matrix data = random_matrix(rows, columns, 1, 0.01);
      for (const std::size_t window :
           {std::size_t{1}, std::size_t{2}, std::size_t{5}, rows / 2, rows - 1, rows}) {
        if (window >= 1 && window <= rows) check_roll(data, window);
      }
    }
  }
}

TEST_CASE("rolling: a window longer than a tile, and more columns than a stripe") {
  check_roll(random_matrix(500, 9, 2, 0.001), 150);
  check_roll(random_matrix(40, 2060, 3, 0.01), 5);
}

TEST_CASE("rolling: special values equal the plain version") {
  const double specials[] = {infinity, -infinity, 0.0, -0.0, 5e-324, 1e308, -1e308, 1e-170};
  for (unsigned seed = 0; seed < 8; ++seed) {
    Matrix data = random_matrix(150, 10, seed);
    for (std::size_t index = seed; index < data.memory.size(); index += 97) {
      data.memory[index] = specials[index % 8];
    }
    check_roll(data, 7);
  }
}

TEST_CASE("rolling: cancellation") {
  Matrix data = random_matrix(300, 8, 4);
  for (double& cell : data.memory) cell = 1e8 + 1e-3 * cell;
  check_roll(data, 20);
}

TEST_CASE("rolling: any layout of the data") {
  const Matrix data = random_matrix(90, 19, 5);
  for (const RollingStatistic statistic : statistics) {
    const Matrix expected = roll(statistic, data, 6);
    for (const Layout layout : {Layout::column_major, Layout::spaced, Layout::reversed}) {
      CHECK(difference(roll(statistic, laid_out(data, layout), 6), expected) == "");
    }
  }
}

}  // namespace kernel_tests
