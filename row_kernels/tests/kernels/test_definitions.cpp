// Every value against its definition in quadruple precision.

#include <doctest/doctest.h>

#include <algorithm>
#include <cmath>
#include <string>

#include "closeness.hpp"
#include "panels.hpp"
#include "time_functions.hpp"

namespace row_kernel_tests {
namespace {

std::vector<double> column_of(const Panel& panel, std::size_t first, std::size_t last,
                              std::size_t column) {
  std::vector<double> values;
  for (std::size_t row = first; row <= last; ++row) values.push_back(panel.at(row, column));
  return values;
}

bool has_nan(const std::vector<double>& values) {
  return std::any_of(values.begin(), values.end(), [](double value) { return std::isnan(value); });
}

bool is_all_finite(const std::vector<double>& values) {
  return std::all_of(values.begin(), values.end(),
                     [](double value) { return std::isfinite(value); });
}

// The first cell that is wrong, as a text.
std::string first_fault(const TimeFunction& function, std::size_t window, const Panel& first,
                        const Panel& second, std::size_t stride = 1) {
  const auto instance = function.make(window);
  Panel result(first.rows, first.columns);
  const auto columns = static_cast<std::ptrdiff_t>(first.columns);
  const Rows arguments[] = {{first.cells.data(), columns}, {second.cells.data(), columns}};
  instance->run(arguments, static_cast<std::ptrdiff_t>(first.rows), columns, result.cells.data());
  const std::size_t held = instance->capacity();
  for (std::size_t row = 0; row < first.rows; row += stride) {
    for (std::size_t column = 0; column < first.columns; ++column) {
      const double actual = result.at(row, column);
      Expected expected{nan, 0};
      if (row + 1 >= held) {
        const std::vector<double> values = column_of(first, row + 1 - held, row, column);
        const std::vector<double> others = column_of(second, row + 1 - held, row, column);
        const bool is_one = function.arguments == 1;
        // A value in between doesn't matter to the ends.
        const bool are_ends = held > window;
        if (are_ends) {
          if (!std::isnan(values.front()) &&
              (function.name == "delay" || !std::isnan(values.back())))
            expected = function.define(values, others);
        } else if (!has_nan(values) && (is_one || !has_nan(others))) {
          expected = function.define(values, others);
          // Infinities are the business of IEEE arithmetic; that they leave no trace is tested
          // here.
          if (!is_all_finite(values) || (!is_one && !is_all_finite(others))) {
            if (!std::isfinite(actual)) continue;
            if (!std::isfinite(static_cast<double>(expected.value))) continue;
          }
        }
      }
      if (!is_close(actual, expected)) {
        char text[200];
        std::snprintf(text, sizeof text,
                      "%s, window %zu, row %zu, column %zu: %.17g instead of %.17g (scale %g)",
                      function.name.c_str(), window, row, column, actual,
                      static_cast<double>(expected.value), static_cast<double>(expected.scale));
        return text;
      }
    }
  }
  return "";
}

}  // namespace

TEST_CASE("each value is that of its definition") {
  for (const TimeFunction& function : time_functions()) {
    for (std::size_t window = 1; window <= 60; window += window < 12 ? 1 : 7) {
      const auto seed = static_cast<unsigned>(window);
      const Panel first = random_panel(400, 19, seed);
      Panel second = random_panel(400, 19, seed + 1000);
      CHECK(first_fault(function, window, first, second) == "");
    }
  }
}

TEST_CASE("long windows") {
  for (const TimeFunction& function : time_functions()) {
    for (const std::size_t window : {100u, 250u, 1000u, 5000u}) {
      const auto seed = static_cast<unsigned>(window);
      const Panel first = random_panel(2 * window + 300, 8, seed, 0.0);
      const Panel second = random_panel(2 * window + 300, 8, seed + 1, 0.0);
      CHECK(first_fault(function, window, first, second, window / 10 + 1) == "");
    }
  }
}

TEST_CASE("arguments that move together or apart, more and more strictly") {
  const auto correlation =
      std::find_if(time_functions().begin(), time_functions().end(),
                   [](const auto& each) { return each.name == "correlation"; });
  REQUIRE(correlation != time_functions().end());
  for (const std::size_t window : {3u, 4u, 5u, 6u, 7u, 12u, 20u, 33u, 60u, 250u}) {
    const auto seed = static_cast<unsigned>(window);
    const Panel first = random_panel(3 * window + 400, 32, seed, 0.0);
    const Panel noise = random_panel(first.rows, 32, seed + 1, 0.0);
    for (const double share : {1e-1, 1e-4, 1e-7, 1e-8, 1e-12, 0.0}) {
      Panel second(first.rows, 32);
      for (std::size_t row = 0; row < first.rows; ++row) {
        for (std::size_t column = 0; column < 32; ++column) {
          const double together = first.at(row, column) + share * noise.at(row, column);
          second.at(row, column) = (column < 16 ? 1.0 : -1.0) / 3.0 * together;
        }
      }
      CAPTURE(share);
      CHECK(first_fault(*correlation, window, first, second, window / 60 + 1) == "");
    }
  }
}

TEST_CASE("products of the least and the greatest numbers") {
  const std::size_t window = 40;
  const auto product = std::find_if(time_functions().begin(), time_functions().end(),
                                    [](const auto& each) { return each.name == "product"; });
  REQUIRE(product != time_functions().end());
  Panel panel(150, 8);
  for (std::size_t row = 0; row < panel.rows; ++row) {
    for (std::size_t column = 0; column < 8; ++column) {
      // All small ones of a window side by side.
      const bool is_small = (row + 3 * column) % window < window / 2;
      panel.at(row, column) = is_small ? 7 * 0x1p-1074 : 0x1p1023;
    }
  }
  const auto instance = product->make(window);
  Panel result(panel.rows, 8);
  const Rows arguments[] = {{panel.cells.data(), 8}};
  instance->run(arguments, static_cast<std::ptrdiff_t>(panel.rows), 8, result.cells.data());
  const double expected = std::exp2(20.0 * (1023 - 1074)) * std::pow(7.0, 20);
  for (std::size_t row = window - 1; row < panel.rows; ++row) {
    for (std::size_t column = 0; column < 8; ++column) {
      CAPTURE(row);
      REQUIRE(result.at(row, column) == doctest::Approx(expected).epsilon(1e-15));
    }
  }
}

}  // namespace row_kernel_tests
