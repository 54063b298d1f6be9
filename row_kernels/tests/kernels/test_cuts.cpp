// The same bits, however a run is cut and on whichever instruction set.

#include <doctest/doctest.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <random>
#include <stdexcept>
#include <string>

#include "panels.hpp"
#include "time/functions.hpp"
#include "time/instruction_set.hpp"
#include "time_functions.hpp"

namespace row_kernel_tests {
namespace {

using namespace quernbrook::row_kernels;

constexpr std::size_t some_windows[] = {1, 2, 3, 5, 8, 20, 33, 60, 130};

struct Input {
  Panel first;
  Panel second;
};

Input input_of(std::size_t rows, std::size_t columns, double share_of_gaps = 1.0) {
  return {random_panel(rows, columns, 3, share_of_gaps),
          random_panel(rows, columns, 4, share_of_gaps)};
}

void run_rows(WindowFunction& function, const Input& input, std::size_t begin, std::size_t end,
              Panel& result) {
  const auto columns = static_cast<std::ptrdiff_t>(input.first.columns);
  const std::size_t at = begin * input.first.columns;
  const Rows arguments[] = {{input.first.cells.data() + at, columns},
                            {input.second.cells.data() + at, columns}};
  function.run(arguments, static_cast<std::ptrdiff_t>(end - begin), columns,
               result.cells.data() + at);
}

Panel whole(const TimeFunction& function, std::size_t window, const Input& input) {
  Panel result(input.first.rows, input.first.columns);
  run_rows(*function.make(window), input, 0, input.first.rows, result);
  return result;
}

// A NaN is like any other.
std::string difference(const Panel& actual, const Panel& expected) {
  for (std::size_t row = 0; row < expected.rows; ++row) {
    for (std::size_t column = 0; column < expected.columns; ++column) {
      const double left = actual.at(row, column);
      const double right = expected.at(row, column);
      if (std::isnan(left) && std::isnan(right)) continue;
      if (std::bit_cast<std::uint64_t>(left) != std::bit_cast<std::uint64_t>(right)) {
        return "row " + std::to_string(row) + ", column " + std::to_string(column);
      }
    }
  }
  return "";
}

}  // namespace

TEST_CASE("row by row, in strips and whole") {
  std::mt19937 bits(1);
  for (const TimeFunction& function : time_functions()) {
    for (const std::size_t window : some_windows) {
      for (const std::size_t columns : {1u, 7u, 8u, 21u}) {
        const Input input = input_of(300, columns);
        const Panel expected = whole(function, window, input);
        for (const std::size_t longest : {1u, 7u, 50u}) {
          const auto instance = function.make(window);
          Panel result(300, columns);
          for (std::size_t row = 0; row < 300;) {
            const std::size_t end = std::min<std::size_t>(300, row + 1 + bits() % longest);
            run_rows(*instance, input, row, end, result);
            row = end;
          }
          CAPTURE(function.name);
          CAPTURE(window);
          CHECK(difference(result, expected) == "");
        }
      }
    }
  }
}

TEST_CASE("cut anywhere and restored") {
  constexpr std::size_t rows = 150;
  constexpr std::size_t columns = 9;
  const Input input = input_of(rows, columns);
  for (const TimeFunction& function : time_functions()) {
    for (const std::size_t window : some_windows) {
      const Panel expected = whole(function, window, input);
      auto instance = function.make(window);
      Panel result(rows, columns);
      for (std::size_t row = 0; row < rows; ++row) {
        const WindowState state = instance->state();
        REQUIRE(state.count == static_cast<std::int64_t>(row));
        REQUIRE(state.rows.size() == function.arguments);
        auto restored = function.make(window);
        restored->restore(state);
        REQUIRE(restored->state().rows.size() == state.rows.size());
        run_rows(*restored, input, row, row + 1, result);
        instance = std::move(restored);
      }
      CAPTURE(function.name);
      CAPTURE(window);
      CHECK(difference(result, expected) == "");
    }
  }
}

TEST_CASE("long windows, cut and restored") {
  std::mt19937 bits(2);
  for (const TimeFunction& function : time_functions()) {
    for (const std::size_t window : {300u, 1100u}) {
      const std::size_t rows = 2 * window + 100;
      const Input input = input_of(rows, 11, 0.1);
      const Panel expected = whole(function, window, input);
      auto instance = function.make(window);
      Panel result(rows, 11);
      for (std::size_t row = 0; row < rows;) {
        const std::size_t end = std::min<std::size_t>(rows, row + 1 + bits() % 100);
        run_rows(*instance, input, row, end, result);
        row = end;
        auto restored = function.make(window);
        restored->restore(instance->state());
        instance = std::move(restored);
      }
      CAPTURE(function.name);
      CAPTURE(window);
      CHECK(difference(result, expected) == "");
    }
  }
}

TEST_CASE("what a state holds are the newest rows, bit for bit") {
  const Input input = input_of(70, 11);
  for (const TimeFunction& function : time_functions()) {
    for (const std::size_t window : {1u, 20u, 90u}) {
      const auto instance = function.make(window);
      Panel result(70, 11);
      run_rows(*instance, input, 0, 70, result);
      const WindowState state = instance->state();
      const std::size_t held = std::min<std::size_t>(70, instance->capacity());
      CHECK(state.column_count == 11);
      for (std::size_t a = 0; a < function.arguments; ++a) {
        const Panel& panel = a == 0 ? input.first : input.second;
        REQUIRE(state.rows[a].size() == held * 11);
        for (std::size_t cell = 0; cell < held * 11; ++cell) {
          const double kept = panel.cells[(70 - held) * 11 + cell];
          CHECK(std::bit_cast<std::uint64_t>(state.rows[a][cell]) ==
                std::bit_cast<std::uint64_t>(kept));
        }
      }
    }
  }
}

TEST_CASE("all instruction sets") {
  const Input input = input_of(400, 21);
  const InstructionSet widest = widest_instruction_set();
  for (const TimeFunction& function : time_functions()) {
    for (const std::size_t window : some_windows) {
      const Panel expected = whole(function, window, input);
      for (const InstructionSet set : {InstructionSet::baseline, InstructionSet::avx2}) {
        use_instruction_set(set);
        const Panel result = whole(function, window, input);
        use_instruction_set(widest);
        CAPTURE(function.name);
        CAPTURE(window);
        CHECK(difference(result, expected) == "");
      }
    }
  }
}

TEST_CASE("all instruction sets, of deviations at the ends of what doubles hold") {
  const InstructionSet widest = widest_instruction_set();
  for (const double scale : {5e-324, 1e-160, 1e-150, 1e-120, 1e-80, 1e80, 1e145, 1e153, 1e300}) {
    Input input = input_of(150, 9);
    for (double& cell : input.first.cells) cell *= scale;
    for (const TimeFunction& function : time_functions()) {
      for (const std::size_t window : {3u, 5u, 6u, 20u, 40u}) {
        const Panel expected = whole(function, window, input);
        for (const InstructionSet set : {InstructionSet::baseline, InstructionSet::avx2}) {
          use_instruction_set(set);
          const Panel result = whole(function, window, input);
          use_instruction_set(widest);
          CAPTURE(function.name);
          CAPTURE(window);
          CAPTURE(scale);
          CHECK(difference(result, expected) == "");
        }
      }
    }
  }
}

TEST_CASE("a share of a quantile that isn't one") {
  for (const double share : {-0.1, 1.5, nan})
    CHECK_THROWS_AS(make_quantile(5, share), std::invalid_argument);
  CHECK_THROWS_WITH(make_quantile(5, 1.5), "share must be at least 0 and at most 1; got 1.5");
}

TEST_CASE("one row that serves all") {
  const Input input = input_of(40, 10);
  for (const TimeFunction& function : time_functions()) {
    Input repeated = input;
    for (std::size_t row = 1; row < 40; ++row) {
      for (std::size_t column = 0; column < 10; ++column) {
        repeated.first.at(row, column) = input.first.at(0, column);
        repeated.second.at(row, column) = input.second.at(0, column);
      }
    }
    const Panel expected = whole(function, 6, repeated);
    Panel result(40, 10);
    const Rows arguments[] = {{input.first.cells.data(), 0}, {input.second.cells.data(), 0}};
    function.make(6)->run(arguments, 40, 10, result.cells.data());
    CAPTURE(function.name);
    CHECK(difference(result, expected) == "");
  }
}

TEST_CASE("rows and states that don't fit") {
  const Input input = input_of(4, 3);
  for (const TimeFunction& function : time_functions()) {
    CAPTURE(function.name);
    CHECK_THROWS_AS(function.make(0), std::invalid_argument);
    const auto instance = function.make(5);
    Panel result(4, 3);
    run_rows(*instance, input, 0, 4, result);
    const Rows arguments[] = {{input.first.cells.data(), 2}, {input.second.cells.data(), 2}};
    CHECK_THROWS_WITH_AS(instance->run(arguments, 1, 2, result.cells.data()),
                         "row has 2 values; the window holds rows of 3", std::invalid_argument);
    CHECK(instance->state().count == 4);
    WindowState state = instance->state();
    state.rows[0].pop_back();
    CHECK_THROWS_AS(instance->restore(state), std::invalid_argument);
    state = instance->state();
    state.rows.emplace_back();
    CHECK_THROWS_AS(instance->restore(state), std::invalid_argument);
    state = instance->state();
    state.count = -1;
    CHECK_THROWS_AS(instance->restore(state), std::invalid_argument);
    // A state of no rows takes a width again.
    instance->restore({0, 3, std::vector<std::vector<double>>(function.arguments)});
    instance->run(arguments, 1, 2, result.cells.data());
    CHECK(instance->state().column_count == 2);
  }
}

TEST_CASE("rows without columns are counted") {
  for (const TimeFunction& function : time_functions()) {
    const auto instance = function.make(3);
    const Rows arguments[] = {{nullptr, 0}, {nullptr, 0}};
    instance->run(arguments, 5, 0, nullptr);
    CHECK(instance->state().count == 5);
  }
}

}  // namespace row_kernel_tests
