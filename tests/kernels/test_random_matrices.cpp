#include <doctest/doctest.h>

#include <optional>

#include "kernels/column_mean.hpp"
#include "kernels/rank.hpp"
#include "kernels/rolling.hpp"
#include "kernels/universe_mask.hpp"
#include "matrix.hpp"
#include "plain_versions.hpp"

// The kernels beside their plain versions, on matrices of any shape, layout and kind of cells.

namespace kernel_tests {
namespace {

using quernbrook::kernels::RollingStatistic;

class Chance {
 public:
  explicit Chance(unsigned seed) : generator_(seed) {}

  std::size_t between(std::size_t least, std::size_t greatest) {
    return std::uniform_int_distribution<std::size_t>(least, greatest)(generator_);
  }
  bool one_in(std::size_t number) { return between(1, number) == 1; }
  double normal() { return std::normal_distribution<double>()(generator_); }

 private:
  std::mt19937_64 generator_;
};

double special(Chance& chance) {
  constexpr double values[] = {nan, infinity, -infinity, 0.0, -0.0, 5e-324, 1e308, -1e308};
  return values[chance.between(0, std::size(values) - 1)];
}

/// Even, uneven, crowded or coarse cells, with special ones among them in every other matrix.
Matrix draw(Chance& chance, std::size_t rows, std::size_t columns) {
  Matrix matrix(rows, columns);
  const std::size_t kind = chance.between(0, 3);
  const std::size_t rarity = chance.one_in(2) ? chance.between(2, 200) : 0;
  for (double& cell : matrix.memory) {
    const double value = chance.normal();
    const double kinds[] = {value, std::exp(20.0 * value), 1e9 + value, std::round(1e3 * value)};
    cell = rarity != 0 && chance.one_in(rarity) ? special(chance) : kinds[kind];
  }
  if (chance.one_in(2)) return matrix;
  return laid_out(matrix, static_cast<Layout>(chance.between(0, 2)));
}

Matrix draw_universe(Chance& chance, std::size_t rows, std::size_t columns) {
  Matrix universe(rows, columns);
  for (double& cell : universe.memory) cell = chance.one_in(4) ? special(chance) : 1.0;
  if (chance.one_in(2)) return universe;
  return laid_out(universe, static_cast<Layout>(chance.between(0, 2)));
}

}  // namespace

TEST_CASE("random matrices: rank") {
  std::size_t ranked = 0;
  std::size_t tied = 0;
  for (unsigned seed = 0; seed < 600; ++seed) {
    CAPTURE(seed);
    Chance chance(seed);
    const std::size_t rows = chance.between(1, 12);
    const std::size_t columns = chance.between(1, chance.one_in(20) ? 1500 : 60);
    const Matrix data = draw(chance, rows, columns);
    const Matrix universe = draw_universe(chance, rows, columns);
    const bool masked = chance.one_in(2);
    const std::optional<Matrix> expected = plain_rank(masked ? plain_mask(data, universe) : data);
    Matrix actual(rows, columns);
    const bool done = quernbrook::kernels::rank_rows(
        data.view(), masked ? universe.view() : quernbrook::kernels::MatrixView{}, actual.data(),
        no_pause);
    REQUIRE(done == expected.has_value());
    if (done) CHECK(difference(actual, *expected) == "");
    ++(done ? ranked : tied);
  }
  // How many depends on the C++ library, whose own the distributions are.
  CHECK(ranked > 50);
  CHECK(tied > 50);
}

TEST_CASE("random matrices: rolling statistics") {
  constexpr RollingStatistic statistics[] = {
      RollingStatistic::mean, RollingStatistic::standard_deviation, RollingStatistic::z_score};
  for (unsigned seed = 0; seed < 400; ++seed) {
    CAPTURE(seed);
    Chance chance(seed);
    const Matrix data = draw(chance, chance.between(1, 300), chance.between(1, 40));
    const std::size_t window =
        chance.between(1, chance.one_in(2) ? data.rows : (data.rows + 9) / 10);
    CAPTURE(window);
    for (const RollingStatistic statistic : statistics) {
      Matrix actual(data.rows, data.columns);
      quernbrook::kernels::rolling(statistic, data.view(), window, actual.data(), no_pause);
      CHECK(difference(actual, plain_rolling(statistic, data, window)) == "");
    }
  }
}

TEST_CASE("random matrices: universe mask") {
  for (unsigned seed = 0; seed < 200; ++seed) {
    CAPTURE(seed);
    Chance chance(seed);
    const Matrix data = draw(chance, 1, chance.between(1, 60));
    const Matrix universe = draw_universe(chance, 1, data.columns);
    Matrix actual(1, data.columns);
    quernbrook::kernels::mask_universe(data.view().row(0), universe.view().row(0), actual.data());
    CHECK(difference(actual, plain_mask(data, universe)) == "");
  }
}

TEST_CASE("random matrices: column mean") {
  std::size_t computed = 0;
  for (unsigned seed = 0; seed < 400; ++seed) {
    CAPTURE(seed);
    Chance chance(seed);
    Matrix block(chance.between(1, 80), chance.between(2, 60));
    for (double& cell : block.memory)
      cell = chance.one_in(5000) ? special(chance) : chance.normal();
    quernbrook::kernels::ColumnMean mean;
    Matrix actual(1, block.columns);
    if (!mean.mean(block.view(), actual.data())) continue;
    ++computed;
    CHECK(difference(actual, Matrix(1, block.columns, plain_column_mean(block))) == "");
  }
  CHECK(computed > 200);
}

}  // namespace kernel_tests
