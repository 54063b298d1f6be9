#include <doctest/doctest.h>

#include <algorithm>
#include <optional>

#include "kernels/rank.hpp"
#include "matrix.hpp"
#include "plain_versions.hpp"

namespace kernel_tests {
namespace {

std::optional<Matrix> rank(const Matrix& data, const Matrix* universe = nullptr) {
  Matrix result(data.rows, data.columns);
  const bool ranked = quernbrook::kernels::rank_rows(
      data.data(), data.row_step, data.column_step, universe ? universe->data() : nullptr,
      universe ? universe->row_step : 0, universe ? universe->column_step : 0, result.data(),
      data.rows, data.columns);
  return ranked ? std::optional(result) : std::nullopt;
}

void check_rank(const Matrix& data) {
  const std::optional<Matrix> expected = plain_rank(data);
  const std::optional<Matrix> actual = rank(data);
  REQUIRE(expected.has_value());
  REQUIRE(actual.has_value());
  CHECK(difference(*actual, *expected) == "");
}

void check_row(std::vector<double> cells, std::vector<double> ranks) {
  const std::size_t columns = cells.size();
  const std::optional<Matrix> actual = rank(Matrix(1, columns, std::move(cells)));
  REQUIRE(actual.has_value());
  CHECK(difference(*actual, Matrix(1, columns, std::move(ranks))) == "");
}

bool has_tie(std::vector<double> cells) {
  const std::size_t columns = cells.size();
  return !rank(Matrix(1, columns, std::move(cells))).has_value();
}

Matrix map(Matrix matrix, double (*function)(double)) {
  for (double& cell : matrix.memory) cell = function(cell);
  return matrix;
}

}  // namespace

TEST_CASE("rank: places are spread evenly from zero to one") {
  check_row({3.0, -1.0, 2.0}, {1.0, 0.0, 0.5});
  check_row({4.0, nan, 1.0, 3.0, 2.0}, {1.0, nan, 0.0, 2.0 / 3.0, 1.0 / 3.0});
}

TEST_CASE("rank: a lone value is in the middle, an empty row stays empty") {
  check_row({nan, 7.0, nan}, {nan, 0.5, nan});
  check_row({-infinity}, {0.5});
  check_row({nan, infinity}, {nan, 0.5});
  check_row({nan, nan}, {nan, nan});
}

TEST_CASE("rank: NaN of any kind becomes the quiet NaN") {
  const auto odd = std::bit_cast<double>(std::uint64_t{0xfff8000000000123});
  check_row({odd, 2.0, 1.0}, {nan, 1.0, 0.0});
}

TEST_CASE("rank: infinities take places in column order") {
  check_row({-infinity, 1.0, -infinity, 0.0}, {0.0, 1.0, 1.0 / 3.0, 2.0 / 3.0});
  check_row({infinity, 1.0, infinity}, {0.5, 0.0, 1.0});
}

TEST_CASE("rank: a positive infinity to the right of NaN ranks above one") {
  check_row({nan, infinity, 1.0}, {nan, 2.0, 0.0});
}

TEST_CASE("rank: equal finite values are a tie, in any row and with any sign of zero") {
  CHECK(has_tie({1.0, 2.0, 1.0}));
  CHECK(has_tie({0.0, 1.0, -0.0}));
  CHECK(has_tie({0.0, 5e-324, -0.0}));
  CHECK(has_tie({5.0, 5.0}));
  CHECK(has_tie({nan, 5e-324, infinity, 5e-324}));
  Matrix data = random_matrix(40, 300, 1);
  data.at(39, 7) = data.at(39, 291) = 0.25;
  CHECK_FALSE(rank(data).has_value());
}

TEST_CASE("rank: neighbouring doubles are no tie") {
  const double next = std::nextafter(1.0, 2.0);
  check_row({next, 1.0, -1e308, 1e308}, {2.0 / 3.0, 1.0 / 3.0, 0.0, 1.0});
  check_row({5e-324, 0.0, 1e-323, -5e-324}, {2.0 / 3.0, 1.0 / 3.0, 1.0, 0.0});
}

TEST_CASE("rank: matrices without cells") {
  CHECK(rank(Matrix(0, 5)).has_value());
  CHECK(rank(Matrix(3, 0)).has_value());
}

TEST_CASE("rank: inactive cells count as NaN, also in a tie") {
  const Matrix data(2, 4, {1.0, 1.0, 3.0, 2.0, 4.0, 3.0, 2.0, 1.0});
  const Matrix universe(2, 4, {0.0, 1.0, 1.0, -2.0, 1.0, nan, -0.0, infinity});
  const std::optional<Matrix> actual = rank(data, &universe);
  REQUIRE(actual.has_value());
  CHECK(difference(*actual, Matrix(2, 4, {nan, 0.0, 1.0, 0.5, 1.0, nan, nan, 0.0})) == "");
}

TEST_CASE("rank: widths with every number of key bits equal the plain version") {
  for (const std::size_t columns : {1, 2, 5, 255, 256, 257, 1024, 1025, 4096, 4097, 16385}) {
    CAPTURE(columns);
    check_rank(random_matrix(3, columns, static_cast<unsigned>(columns)));
  }
}

TEST_CASE("rank: any layout of the data and the universe") {
  const Matrix data = random_matrix(20, 37, 2);
  const Matrix universe =
      map(random_matrix(20, 37, 3), [](double cell) { return cell < -1.0 ? 0.0 : cell; });
  const std::optional<Matrix> bare = rank(data);
  const std::optional<Matrix> masked = rank(data, &universe);
  REQUIRE(bare.has_value());
  REQUIRE(masked.has_value());
  for (const Layout layout : {Layout::column_major, Layout::spaced, Layout::reversed}) {
    const Matrix other_universe = laid_out(universe, layout);
    CHECK(difference(*rank(laid_out(data, layout)), *bare) == "");
    CHECK(difference(*rank(laid_out(data, layout), &other_universe), *masked) == "");
  }
}

TEST_CASE("rank: values of very different size") {
  check_rank(map(random_matrix(70, 300, 4), [](double cell) { return std::exp(20.0 * cell); }));
  check_rank(map(random_matrix(5, 300, 5), [](double cell) { return cell * 1e308; }));
  check_rank(map(random_matrix(5, 300, 6), [](double cell) { return cell * 1e-310; }));
}

TEST_CASE("rank: values close together, with others far away") {
  Matrix data = map(random_matrix(70, 300, 7), [](double cell) { return 1e9 + cell; });
  check_rank(data);
  for (std::size_t row = 0; row < data.rows; ++row) {
    data.at(row, 17) = -1e300;
    data.at(row, 18) = infinity;
    data.at(row, 19) = -infinity;
  }
  check_rank(data);
  data.at(69, 298) = data.at(69, 299) = 1e9;
  CHECK_FALSE(rank(data).has_value());
}

TEST_CASE("rank: rows that turn from uneven to even and back") {
  Matrix data = random_matrix(200, 300, 8);
  for (std::size_t row = 0; row < data.rows; row += 1 + row % 7) data.at(row, row) = 1e12;
  check_rank(data);
}

}  // namespace kernel_tests
