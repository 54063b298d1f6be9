// Prints a digest of what each function computes, to compare processors: a line a function, and a
// mark on those that call the C library's elementary functions, whose last bits are its own.

#include <bit>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "../kernels/panels.hpp"
#include "../kernels/time_functions.hpp"
#include "cells/cells.hpp"
#include "rows/rows.hpp"
#include "signals/signals.hpp"

namespace row_kernel_tests {
namespace {

using namespace quernbrook::row_kernels;

constexpr std::size_t row_count = 300;

/// Even numbers, far from zero, few, of very different size; with NaN and infinities here and
/// there. Made of integers, for distributions are the C++ library's own.
Panel panel_of(std::size_t columns, unsigned seed) {
  std::mt19937_64 bits(seed);
  Panel panel(row_count, columns);
  for (std::size_t cell = 0; cell < panel.cells.size(); ++cell) {
    const double even = static_cast<double>(bits() >> 11) * 0x1p-52 - 1.0;
    const int exponent = static_cast<int>(bits() % 80) - 40;
    const double kinds[] = {even, 1e8 + even, std::floor(4.0 * even), std::ldexp(even, exponent)};
    const std::uint64_t fate = bits() % 400;
    panel.cells[cell] = fate == 0   ? nan
                        : fate == 1 ? infinity
                        : fate == 2 ? -infinity
                                    : kinds[cell % columns % 4];
  }
  return panel;
}

/// By Fowler, Noll and Vo, of 64 bits. A NaN is like any other.
class Digest {
 public:
  void add(const Panel& panel) {
    for (const double cell : panel.cells) {
      const auto bits = std::bit_cast<std::uint64_t>(std::isnan(cell) ? nan : cell);
      for (int shift = 0; shift < 64; shift += 8) {
        value_ = (value_ ^ (bits >> shift & 0xff)) * 0x100000001b3;
      }
    }
  }
  void print(const std::string& name, bool is_of_the_c_library) const {
    std::printf("%016llx %c %s\n", static_cast<unsigned long long>(value_),
                is_of_the_c_library ? 'c' : '-', name.c_str());
  }

 private:
  std::uint64_t value_ = 0xcbf29ce484222325;
};

const std::size_t widths[] = {1, 7, 8, 21, 150, 1100};

void run(RowFunction& function, std::size_t columns, Digest& digest) {
  const Panel panels[] = {panel_of(columns, 1), panel_of(columns, 2), panel_of(columns, 3)};
  const auto stride = static_cast<std::ptrdiff_t>(columns);
  std::vector<Rows> arguments;
  for (const Panel& panel : panels) arguments.push_back({panel.cells.data(), stride});
  Panel result(row_count, columns);
  function.run(arguments.data(), row_count, stride, result.cells.data());
  digest.add(result);
}

struct NamedRowFunction {
  const char* name;
  std::function<std::unique_ptr<RowFunction>()> make;
  bool is_of_the_c_library = false;
};

const NamedRowFunction row_functions[] = {
    {"add", make_add},
    {"subtract", make_subtract},
    {"multiply", make_multiply},
    {"divide", [] { return make_divide(false); }},
    {"divide, finite", [] { return make_divide(true); }},
    {"negate", make_negate},
    {"absolute", make_absolute},
    {"sign", make_sign},
    {"minimum", [] { return make_minimum(false); }},
    {"minimum beside NaN", [] { return make_minimum(true); }},
    {"maximum", [] { return make_maximum(false); }},
    {"maximum beside NaN", [] { return make_maximum(true); }},
    {"logarithm", make_logarithm, true},
    {"power", make_power, true},
    {"signed power", make_signed_power, true},
    {"less", [] { return make_less(false); }},
    {"less equal", [] { return make_less_equal(false); }},
    {"greater", [] { return make_greater(false); }},
    {"greater equal", [] { return make_greater_equal(false); }},
    {"equal", [] { return make_equal(false); }},
    {"not equal", [] { return make_not_equal(true); }},
    {"and", make_and},
    {"or", make_or},
    {"not", make_not},
    {"where", make_where},
    {"rank across", [] { return make_rank(0.5); }},
    {"demean", make_demean},
    {"z-score across", make_z_score},
    {"demean within groups", make_group_demean},
    {"scale", [] { return make_scale(1.0, false); }},
    {"scale, finite", [] { return make_scale(1.0, true); }},
    {"winsorize", [] { return make_winsorize(0.1); }},
    {"top share", [] { return make_top_share(0.2); }},
    {"bottom share", [] { return make_bottom_share(0.2); }},
};

void print_row_functions() {
  for (const auto& [name, make, is_of_the_c_library] : row_functions) {
    Digest digest;
    for (const std::size_t columns : widths) run(*make(), columns, digest);
    digest.print(name, is_of_the_c_library);
  }
}

void print_time_functions() {
  for (const TimeFunction& function : time_functions()) {
    Digest digest;
    for (const std::size_t window : {1u, 2u, 3u, 5u, 8u, 20u, 60u, 130u}) {
      for (const std::size_t columns : {1u, 7u, 8u, 21u}) {
        run(*function.make(window), columns, digest);
      }
    }
    digest.print(function.name, function.name == "exponential mean");
  }
}

void run_signals(SignalFunction& function, Digest& digest) {
  constexpr std::ptrdiff_t signal_count = 5;
  constexpr std::ptrdiff_t columns = 37;
  Panel weights = panel_of(signal_count * columns, 4);
  Panel pnl = panel_of(signal_count, 5);
  Panel result(row_count, columns);
  for (std::size_t row = 0; row < row_count; ++row) {
    function.run(&weights.at(row, 0), signal_count, columns, &pnl.at(row, 0), &result.at(row, 0));
  }
  digest.add(result);
}

void print_signal_functions() {
  Digest mean;
  run_signals(*make_signal_mean(), mean);
  mean.print("mean of signals", false);
  for (const char* statistic : {"vol", "downside_vol", "sharpe", "sortino", "turnover", "pnl"}) {
    Digest digest;
    for (const bool invert : {false, true}) {
      run_signals(*make_weighted(statistic, 12, invert), digest);
    }
    digest.print(std::string("weighted by ") + statistic, false);
  }
}

}  // namespace
}  // namespace row_kernel_tests

int main() {
  row_kernel_tests::print_row_functions();
  row_kernel_tests::print_time_functions();
  row_kernel_tests::print_signal_functions();
}
