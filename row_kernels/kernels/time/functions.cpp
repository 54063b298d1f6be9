#include "time/functions.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <limits>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "time/instruction_set.hpp"
#include "time/sorted_loops.hpp"
#include "time/tiled_function.hpp"

namespace quernbrook::row_kernels {
namespace {

using Loops = TileLoops Statistics::*;
using CentredLoops = TileLoops CentredStatistics::*;

void require_window(std::size_t window) {
  if (window < 1) throw std::invalid_argument("window must be at least 1; got 0");
  // More rows than any memory holds, and so few that no size of theirs overflows.
  constexpr std::size_t longest = std::size_t{1} << 48;
  if (window > longest) {
    throw std::invalid_argument("window must be at most " + std::to_string(longest) + "; got " +
                                std::to_string(window));
  }
}

// As even as can be: a short last part costs as much as a long one.
std::size_t even_part_length(std::size_t window, std::size_t part_count) {
  return (window + part_count - 1) / part_count;
}

// Parts near the root of the window need the least memory, and the work at the beginning of one,
// which goes through all others, stays a small share. Short windows are cheapest in one part.
std::size_t usual_part_length(std::size_t window) {
  constexpr std::size_t short_window = 32;
  if (window <= short_window) return window;
  return even_part_length(
      window, window / static_cast<std::size_t>(2.0 * std::sqrt(static_cast<double>(window))));
}

Plan plan_of_parts(std::size_t window, std::size_t part_length, double factor = 1.0,
                   double term = 0.0) {
  Plan plan{.window = window, .factor = factor, .term = term};
  plan.part_length = part_length;
  plan.part_count = (window + part_length - 1) / part_length;
  plan.last_part_length = window - (plan.part_count - 1) * part_length;
  return plan;
}

std::unique_ptr<WindowFunction> make(std::size_t window, const Plan& plan, Loops loops,
                                     std::vector<double> weights = {}) {
  return std::make_unique<TiledFunction>(window, plan, statistics_loops().*loops,
                                         half_statistics_loops().*loops, std::move(weights));
}

std::unique_ptr<WindowFunction> simple(std::size_t window, Loops loops) {
  require_window(window);
  return make(window, plan_of_parts(window, usual_part_length(window)), loops);
}

// The centre is the mean of the other parts, of which there are two at least.
std::unique_ptr<WindowFunction> centred(std::size_t window, CentredLoops loops, double factor = 1.0,
                                        double term = 0.0) {
  constexpr std::size_t very_short_window = 5;
  if (window <= very_short_window) {
    const Plan plan{.window = window, .factor = factor, .term = term};
    return std::make_unique<TiledFunction>(window, plan, statistics_loops().directly.*loops,
                                           half_statistics_loops().directly.*loops);
  }
  const std::size_t part_count = std::max<std::size_t>(3, window / usual_part_length(window));
  const std::size_t part_length = even_part_length(window, part_count);
  return std::make_unique<TiledFunction>(window, plan_of_parts(window, part_length, factor, term),
                                         statistics_loops().in_parts.*loops,
                                         half_statistics_loops().in_parts.*loops);
}

// Where a window of 1 gives `value`.
std::unique_ptr<WindowFunction> lone(Loops loops, double value) {
  return make(1, plan_of_parts(1, 1, 1.0, value), loops);
}

constexpr double nan = std::numeric_limits<double>::quiet_NaN();

// Of squared deviations.
double divisor(std::size_t window, Of of) {
  return static_cast<double>(of == Of::population ? window : window - 1);
}

std::unique_ptr<WindowFunction> of_ends(std::size_t window, Loops loops) {
  require_window(window);
  return make(window, Plan{.window = window + 1}, loops);
}

}  // namespace

std::unique_ptr<WindowFunction> make_delay(std::size_t window) {
  return of_ends(window, &Statistics::delay);
}

std::unique_ptr<WindowFunction> make_delta(std::size_t window) {
  return of_ends(window, &Statistics::delta);
}

std::unique_ptr<WindowFunction> make_sum(std::size_t window) {
  return simple(window, &Statistics::sum);
}

std::unique_ptr<WindowFunction> make_mean(std::size_t window) {
  return simple(window, &Statistics::mean);
}

std::unique_ptr<WindowFunction> make_maximum(std::size_t window) {
  return simple(window, &Statistics::maximum);
}

std::unique_ptr<WindowFunction> make_minimum(std::size_t window) {
  return simple(window, &Statistics::minimum);
}

std::unique_ptr<WindowFunction> make_maximum_age(std::size_t window) {
  return simple(window, &Statistics::maximum_age);
}

std::unique_ptr<WindowFunction> make_minimum_age(std::size_t window) {
  return simple(window, &Statistics::minimum_age);
}

std::unique_ptr<WindowFunction> make_variance(std::size_t window, Of of) {
  require_window(window);
  if (window == 1) return lone(&Statistics::lone_value, of == Of::sample ? nan : 0.0);
  return centred(window, &CentredStatistics::variance, divisor(window, of));
}

std::unique_ptr<WindowFunction> make_standard_deviation(std::size_t window, Of of) {
  require_window(window);
  if (window == 1) return lone(&Statistics::lone_value, of == Of::sample ? nan : 0.0);
  return centred(window, &CentredStatistics::standard_deviation, divisor(window, of));
}

std::unique_ptr<WindowFunction> make_z_score(std::size_t window) {
  require_window(window);
  if (window == 1) return lone(&Statistics::lone_value, 0.0);
  return centred(window, &CentredStatistics::z_score, divisor(window, Of::population));
}

std::unique_ptr<WindowFunction> make_covariance(std::size_t window, Of of) {
  require_window(window);
  if (window == 1) return lone(&Statistics::lone_pair, of == Of::sample ? nan : 0.0);
  return centred(window, &CentredStatistics::covariance,
                 1.0 / (static_cast<double>(window) * divisor(window, of)));
}

std::unique_ptr<WindowFunction> make_correlation(std::size_t window) {
  require_window(window);
  if (window == 1) return lone(&Statistics::lone_pair, nan);
  if (window == 2) return make(window, Plan{.window = window}, &Statistics::concordance);
  return centred(window, &CentredStatistics::correlation,
                 1.0 / std::sqrt(static_cast<double>(window)));
}

// From sums over the window: the divisors of the moments are in the factors.
std::unique_ptr<WindowFunction> make_skewness(std::size_t window, Of of) {
  require_window(window);
  if (window == 1) return lone(&Statistics::lone_value, nan);
  const auto n = static_cast<double>(window);
  double factor = std::sqrt(n);
  if (of == Of::sample) factor = window < 3 ? nan : n * std::sqrt(n - 1.0) / (n - 2.0);
  return centred(window, &CentredStatistics::skewness, factor);
}

std::unique_ptr<WindowFunction> make_kurtosis(std::size_t window, Of of) {
  require_window(window);
  if (window == 1) return lone(&Statistics::lone_value, nan);
  const auto n = static_cast<double>(window);
  double factor = n;
  double term = -3.0;
  if (of == Of::sample) {
    const double divisor = (n - 2.0) * (n - 3.0);
    factor = window < 4 ? nan : n * (n - 1.0) * (n + 1.0) / divisor;
    term = -3.0 * (n - 1.0) * (n - 1.0) / divisor;
  }
  return centred(window, &CentredStatistics::kurtosis, factor, term);
}

std::unique_ptr<WindowFunction> make_decaying_mean(std::size_t window) {
  return simple(window, &Statistics::decaying_mean);
}

std::unique_ptr<WindowFunction> make_exponential_mean(std::size_t window) {
  require_window(window);
  if (window == 1) return make_sum(1);
  const std::size_t part = usual_part_length(window);
  // Powers by the logarithm: those of a rounded ratio would be off by their exponent's share.
  const auto n = static_cast<long double>(window);
  const long double logarithm = std::log1p(-2.0L / (n + 1.0L));
  const long double sum = -std::expm1(n * logarithm) * (n + 1.0L) / 2.0L;
  std::vector<double> weights(window + 2 * part);
  for (std::size_t place = 0; place < window + part; ++place) {
    weights[place] =
        static_cast<double>(std::exp((n - static_cast<long double>(place)) * logarithm));
  }
  for (std::size_t offset = 0; offset < part; ++offset) {
    weights[window + part + offset] =
        static_cast<double>(std::exp(static_cast<long double>(offset) * logarithm) / sum);
  }
  return make(window, plan_of_parts(window, part), &Statistics::exponential_mean,
              std::move(weights));
}

std::unique_ptr<WindowFunction> make_product(std::size_t window) {
  return simple(window, &Statistics::product);
}

std::unique_ptr<WindowFunction> make_rank(std::size_t window) {
  require_window(window);
  if (window == 1) return lone(&Statistics::lone_value, nan);
  // Counting takes time in proportion to the window, but little.
  constexpr std::size_t longest_counted = 1024;
  const Plan plan{.window = window};
  if (window <= longest_counted) return make(window, plan, &Statistics::rank);
  return std::make_unique<TiledFunction>(window, plan, sorted_rank_loops, sorted_rank_loops);
}

std::unique_ptr<WindowFunction> make_quantile(std::size_t window, double share) {
  require_window(window);
  if (!(share >= 0.0 && share <= 1.0)) {
    std::array<char, 80> text{};
    std::snprintf(text.data(), text.size(), "share must be at least 0 and at most 1; got %g",
                  share);
    throw std::invalid_argument(text.data());
  }
  constexpr std::size_t longest_in_lines = 256;
  const Plan plan{.window = window, .factor = share};
  if (window <= longest_in_lines) return make(window, plan, &Statistics::quantile);
  return std::make_unique<TiledFunction>(window, plan, sorted_quantile_loops,
                                         sorted_quantile_loops);
}

std::unique_ptr<WindowFunction> make_slope(std::size_t window) {
  if (window == 1) return lone(&Statistics::lone_value, nan);
  return simple(window, &Statistics::slope);
}

std::unique_ptr<WindowFunction> make_intercept(std::size_t window) {
  if (window == 1) return make_sum(1);
  return simple(window, &Statistics::intercept);
}

std::unique_ptr<WindowFunction> make_residual(std::size_t window) {
  if (window == 1) return lone(&Statistics::lone_value, 0.0);
  return simple(window, &Statistics::residual);
}

}  // namespace quernbrook::row_kernels
