// What is computed depends on the window's rows alone: nothing that has left it shows.

#include <doctest/doctest.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <vector>

#include "closeness.hpp"
#include "panels.hpp"
#include "time_functions.hpp"

namespace row_kernel_tests {
namespace {

Panel run_whole(const TimeFunction& function, std::size_t window, const Panel& first,
                const Panel& second) {
  Panel result(first.rows, first.columns);
  const auto columns = static_cast<std::ptrdiff_t>(first.columns);
  const Rows arguments[] = {{first.cells.data(), columns}, {second.cells.data(), columns}};
  function.make(window)->run(arguments, static_cast<std::ptrdiff_t>(first.rows), columns,
                             result.cells.data());
  return result;
}

const TimeFunction& function_of(const std::string& name) {
  for (const TimeFunction& function : time_functions()) {
    if (function.name == name) return function;
  }
  throw std::invalid_argument(name);
}

}  // namespace

TEST_CASE("infinities, NaN and huge values leave no trace, not in a bit") {
  constexpr std::size_t rows = 200;
  constexpr std::size_t columns = 16;
  constexpr std::size_t place = 50;
  for (const TimeFunction& function : time_functions()) {
    for (const std::size_t window : {1u, 3u, 5u, 6u, 20u, 40u, 70u}) {
      const Panel first = random_panel(rows, columns, 5, 0.0);
      const Panel second = random_panel(rows, columns, 6, 0.0);
      const Panel expected = run_whole(function, window, first, second);
      for (const double guest : {infinity, -infinity, nan, 1e300, -1.7e308, 5e-324}) {
        Panel disturbed = first;
        for (std::size_t column = 0; column < columns; ++column) {
          disturbed.at(place + column % 3, column) = guest;
        }
        const Panel result = run_whole(function, window, disturbed, second);
        std::size_t differences = 0;
        for (std::size_t row = place + 3 + window; row < rows; ++row) {
          for (std::size_t column = 0; column < columns; ++column) {
            differences += std::bit_cast<std::uint64_t>(result.at(row, column)) !=
                           std::bit_cast<std::uint64_t>(expected.at(row, column));
          }
        }
        CAPTURE(function.name);
        CAPTURE(window);
        CAPTURE(guest);
        CHECK(differences == 0);
      }
    }
  }
}

TEST_CASE("windows of equal values have no spread, whatever came before") {
  for (const std::size_t window : {2u, 3u, 5u, 6u, 20u, 64u, 250u}) {
    Panel first = random_panel(3 * window + 20, 8, 9);
    const Panel second = random_panel(first.rows, 8, 10, 0.0);
    const std::size_t start = window + 7;
    for (std::size_t column = 0; column < 8; ++column) {
      first.at(start - 1, column) = column % 2 == 0 ? 1e300 : infinity;
      const double value = column < 4 ? 0.1 * (1.0 + static_cast<double>(column)) : 1e8 / 3.0;
      for (std::size_t row = start; row < first.rows; ++row) first.at(row, column) = value;
    }
    const auto each = [&](const char* name, auto&& is_right) {
      const Panel result = run_whole(function_of(name), window, first, second);
      CAPTURE(name);
      CAPTURE(window);
      for (std::size_t row = start + window - 1; row < first.rows; ++row) {
        for (std::size_t column = 0; column < 8; ++column) {
          REQUIRE(is_right(result.at(row, column)));
        }
      }
    };
    const auto is_zero = [](double value) { return value == 0.0; };
    const auto is_nan = [](double value) { return std::isnan(value); };
    each("variance", is_zero);
    each("variance of a sample", is_zero);
    each("standard deviation", is_zero);
    each("z-score", is_zero);
    each("covariance", is_zero);
    each("slope", is_zero);
    each("residual", is_zero);
    each("correlation", is_nan);
    each("skewness", is_nan);
    each("kurtosis", is_nan);
    each("rank", [](double value) { return value == 0.5; });
  }
}

TEST_CASE("the correlation of two rows is 1 or -1, whatever their size") {
  const double least = 5e-324;
  const double greatest = 1.7e308;
  // The oldest and newest value of each argument, and the correlation.
  const double rows[][5] = {{0.1, 0.3, 7.0, 7.1, 1.0},
                            {0.1, 0.3, 7.1, 7.0, -1.0},
                            {0.3, 0.1, 1e9, 1e-9, 1.0},
                            {0.0, least, 1.0, 0.0, -1.0},
                            {greatest, -greatest, -greatest, greatest, -1.0},
                            {1.0, std::nextafter(1.0, 2.0), least, 2 * least, 1.0},
                            {0.1, 0.1, 1.0, 2.0, nan},
                            {-0.0, 0.0, 1.0, 2.0, nan},
                            {0.1, infinity, 1.0, 2.0, nan},
                            {-infinity, infinity, 1.0, 2.0, nan},
                            {0.1, 0.2, nan, 2.0, nan}};
  for (const auto& row : rows) {
    const double first[] = {row[0], row[1]};
    const double second[] = {row[2], row[3]};
    const Rows arguments[] = {{first, 1}, {second, 1}};
    double result[2];
    function_of("correlation").make(2)->run(arguments, 2, 1, result);
    CAPTURE(row[0]);
    CHECK(std::isnan(result[0]));
    CHECK((std::isnan(row[4]) ? std::isnan(result[1]) : result[1] == row[4]));
  }
}

TEST_CASE("infinities in the window are what the definition makes of them") {
  Panel panel(9, 8);
  for (double& cell : panel.cells) cell = 2.0;
  panel.at(4, 0) = infinity;
  panel.at(4, 1) = -infinity;
  panel.at(3, 2) = infinity;
  panel.at(5, 2) = -infinity;
  const Panel second = random_panel(9, 8, 1, 0.0);
  for (const char* name : {"sum", "mean", "decaying mean", "exponential mean"}) {
    const Panel result = run_whole(function_of(name), 4, panel, second);
    CAPTURE(name);
    for (std::size_t row = 4; row < 8; ++row) {
      CHECK(result.at(row, 0) == infinity);
      CHECK(result.at(row, 1) == -infinity);
      CHECK(std::isfinite(result.at(row, 3)));
    }
    for (const std::size_t row : {5u, 6u}) CHECK(std::isnan(result.at(row, 2)));
    CHECK(result.at(4, 2) == infinity);
    CHECK(result.at(7, 2) == -infinity);
    CHECK(std::isfinite(result.at(8, 0)));
  }
  for (const char* name : {"variance", "z-score", "covariance", "correlation", "slope"}) {
    const Panel result = run_whole(function_of(name), 4, panel, second);
    CAPTURE(name);
    for (std::size_t row = 4; row < 8; ++row) CHECK(std::isnan(result.at(row, 0)));
    CHECK_FALSE(std::isinf(result.at(8, 0)));
  }
  CHECK(run_whole(function_of("maximum"), 4, panel, second).at(6, 0) == infinity);
  CHECK(run_whole(function_of("maximum_age"), 4, panel, second).at(6, 0) == 2.0);
  CHECK(run_whole(function_of("minimum_age"), 4, panel, second).at(6, 1) == 2.0);
  CHECK(run_whole(function_of("product"), 4, panel, second).at(6, 1) == -infinity);
}

TEST_CASE("after ten million rows") {
  constexpr std::size_t columns = 8;
  constexpr std::size_t strip = 20000;
  const Panel first = random_panel(strip, columns, 11, 0.0);
  const Panel second = random_panel(strip, columns, 12, 0.0);
  const Rows arguments[] = {{first.cells.data(), columns}, {second.cells.data(), columns}};
  Panel result(strip, columns);
  for (const TimeFunction& function : time_functions()) {
    constexpr std::size_t window = 21;
    const auto instance = function.make(window);
    for (int strips = 0; strips < 500; ++strips) {
      instance->run(arguments, strip, columns, result.cells.data());
    }
    CHECK(instance->state().count == 10'000'000);
    const std::size_t held = instance->capacity();
    for (std::size_t row = strip - 50; row < strip; ++row) {
      for (std::size_t column = 0; column < columns; ++column) {
        std::vector<double> values;
        std::vector<double> others;
        for (std::size_t at = row + 1 - held; at <= row; ++at) {
          values.push_back(first.at(at, column));
          others.push_back(second.at(at, column));
        }
        CAPTURE(function.name);
        CAPTURE(column);
        CHECK(is_close(result.at(row, column), function.define(values, others)));
      }
    }
  }
}

}  // namespace row_kernel_tests
