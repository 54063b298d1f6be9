#include "time_functions.hpp"

#include <algorithm>
#include <cmath>
#include <limits>

#include "time/functions.hpp"

namespace row_kernel_tests {
namespace {

using namespace quernbrook::row_kernels;
using Values = std::vector<double>;

constexpr double nan = std::numeric_limits<double>::quiet_NaN();

Wide magnitude(Wide value) { return value < 0 ? -value : value; }

Expected exactly(double value) { return {value, 0}; }

Wide sum(const Values& values) {
  Wide sum = 0;
  for (const double value : values) sum += value;
  return sum;
}

Wide mean(const Values& values) { return sum(values) / values.size(); }

// In extended precision, made better by one step of Newton's.
Wide square_root(Wide value) {
  if (!(value > 0)) return value;
  const Wide root = std::sqrt(static_cast<long double>(value));
  return (root + value / root) / 2;
}

// Sums of products of deviations from the mean.
Wide joint_deviations(const Values& first, const Values& second) {
  const Wide first_mean = mean(first);
  const Wide second_mean = mean(second);
  Wide sum = 0;
  for (std::size_t row = 0; row < first.size(); ++row) {
    sum += (first[row] - first_mean) * (second[row] - second_mean);
  }
  return sum;
}

bool all_equal(const Values& values) {
  return std::all_of(values.begin(), values.end(),
                     [&](double value) { return value == values.front(); });
}

Wide variance(const Values& values) { return joint_deviations(values, values) / values.size(); }

Wide central_moment(const Values& values, int power) {
  const Wide centre = mean(values);
  Wide sum = 0;
  for (const double value : values) {
    Wide term = 1;
    for (int factor = 0; factor < power; ++factor) term *= value - centre;
    sum += term;
  }
  return sum / values.size();
}

Expected z_score(const Values& values, const Values&) {
  if (all_equal(values)) return exactly(0.0);
  return {(values.back() - mean(values)) / square_root(variance(values)), 1};
}

Expected covariance(const Values& first, const Values& second) {
  const Wide count = first.size();
  const Wide scale = square_root(variance(first)) * square_root(variance(second));
  return {joint_deviations(first, second) / count, scale};
}

Expected correlation(const Values& first, const Values& second) {
  if (all_equal(first) || all_equal(second)) return exactly(nan);
  if (first.size() == 2) {
    return exactly((first[0] < first[1]) == (second[0] < second[1]) ? 1.0 : -1.0);
  }
  const Wide scale = square_root(variance(first)) * square_root(variance(second));
  const Wide correlation = joint_deviations(first, second) / first.size() / scale;
  return {correlation, 1 - magnitude(correlation)};
}

Expected skewness(const Values& values, const Values&) {
  if (all_equal(values)) return exactly(nan);
  const Wide second = central_moment(values, 2);
  const Wide skewness = central_moment(values, 3) / second / square_root(second);
  return {skewness, 8 * (2 + magnitude(skewness))};
}

Expected sample_skewness(const Values& values, const Values& others) {
  const Wide n = values.size();
  if (n < 3) return exactly(nan);
  const Wide factor = square_root(n * (n - 1)) / (n - 2);
  const Expected population = skewness(values, others);
  return {population.value * factor, population.scale * factor};
}

Expected kurtosis(const Values& values, const Values&) {
  if (all_equal(values)) return exactly(nan);
  const Wide second = central_moment(values, 2);
  const Wide kurtosis = central_moment(values, 4) / second / second;
  return {kurtosis - 3, 8 * (3 + kurtosis)};
}

Expected sample_kurtosis(const Values& values, const Values& others) {
  const Wide n = values.size();
  if (n < 4) return exactly(nan);
  const Wide factor = (n - 1) / ((n - 2) * (n - 3));
  const Expected population = kurtosis(values, others);
  return {factor * ((n + 1) * population.value + 6), factor * (n + 1) * (population.scale + 6)};
}

// What the sample's divisor makes of a statistic of second moments.
Definition of_sample(Definition define, int power_of_root) {
  return [define, power_of_root](const Values& first, const Values& second) {
    const Wide n = first.size();
    if (n < 2) return exactly(nan);
    Wide factor = n / (n - 1);
    if (power_of_root == 2) factor = square_root(factor);
    const Expected population = define(first, second);
    return Expected{population.value * factor, population.scale * factor};
  };
}

Expected decaying_mean(const Values& values, const Values&) {
  Wide sum = 0;
  Wide scale = 0;
  Wide weights = 0;
  for (std::size_t row = 0; row < values.size(); ++row) {
    const Wide weight = row + 1;
    sum += weight * values[row];
    scale += weight * magnitude(values[row]);
    weights += weight;
  }
  return {sum / weights, scale / weights * 0x1p-40};
}

struct Line {
  Wide slope;
  Wide intercept;
  Wide scale;  // of the values' deviations
};

Line line(const Values& values) {
  const Wide count = values.size();
  const Wide centre = mean(values);
  Wide above = 0;
  Wide below = 0;
  Wide scale = 0;
  for (std::size_t row = 0; row < values.size(); ++row) {
    const Wide time = row - (count - 1) / 2;
    above += time * (values[row] - centre);
    below += time * time;
    scale = std::max(scale, magnitude(values[row] - centre));
  }
  const Wide slope = count == 1 ? 0 : above / below;
  return {slope, centre - slope * (count - 1) / 2, scale};
}

Expected slope(const Values& values, const Values&) {
  if (values.size() == 1) return exactly(nan);
  const Line fitted = line(values);
  return {fitted.slope, fitted.scale / values.size()};
}

Expected intercept(const Values& values, const Values&) {
  const Line fitted = line(values);
  return {fitted.intercept, fitted.scale + magnitude(mean(values))};
}

Expected residual(const Values& values, const Values&) {
  const Line fitted = line(values);
  return {values.back() - fitted.intercept - fitted.slope * (values.size() - 1), fitted.scale};
}

Expected exponential_mean(const Values& values, const Values&) {
  const Wide count = values.size();
  const Wide ratio = (count - 1) / (count + 1);
  Wide sum = 0;
  Wide scale = 0;
  Wide weights = 0;
  Wide weight = 1;
  for (auto value = values.rbegin(); value != values.rend(); ++value) {
    sum += weight * *value;
    scale += weight * magnitude(*value);
    weights += weight;
    weight *= ratio;
  }
  return {sum / weights, scale / weights};
}

Expected product(const Values& values, const Values&) {
  Wide product = 1;
  for (const double value : values) product *= value;
  return {product, 0x1p-1022};
}

Expected rank(const Values& values, const Values&) {
  if (values.size() == 1) return exactly(nan);
  double places = -1.0;
  for (const double value : values) {
    if (value < values.back()) places += 2.0;
    if (value == values.back()) places += 1.0;
  }
  return {static_cast<Wide>(places) / 2 / (values.size() - 1), 0};
}

Definition quantile(double share) {
  return [share](Values values, const Values&) {
    std::sort(values.begin(), values.end());
    const double position = share * static_cast<double>(values.size() - 1);
    const auto lower = static_cast<std::size_t>(position);
    const Wide low = values[lower];
    const Wide high = values[std::min(lower + 1, values.size() - 1)];
    return Expected{low + (high - low) * (position - static_cast<double>(lower)),
                    std::max(magnitude(low), magnitude(high))};
  };
}

double age(const Values& values, Values::const_iterator place) {
  return static_cast<double>(values.end() - place - 1);
}

}  // namespace

const std::vector<TimeFunction>& time_functions() {
  static const std::vector<TimeFunction> functions = {
      {"delay", make_delay,
       [](const Values& values, const Values&) { return exactly(values.front()); }},
      {"delta", make_delta,
       [](const Values& values, const Values&) { return exactly(values.back() - values.front()); }},
      {"sum", make_sum,
       [](const Values& values, const Values&) { return Expected{sum(values), 0}; }},
      {"mean", make_mean,
       [](const Values& values, const Values&) { return Expected{mean(values), 0}; }},
      {"maximum", make_maximum,
       [](const Values& values, const Values&) {
         return exactly(*std::max_element(values.begin(), values.end()));
       }},
      {"minimum", make_minimum,
       [](const Values& values, const Values&) {
         return exactly(*std::min_element(values.begin(), values.end()));
       }},
      {"maximum_age", make_maximum_age,
       [](const Values& values, const Values&) {
         return exactly(age(values, std::max_element(values.begin(), values.end())));
       }},
      {"minimum_age", make_minimum_age,
       [](const Values& values, const Values&) {
         return exactly(age(values, std::min_element(values.begin(), values.end())));
       }},
      {"variance", [](std::size_t window) { return make_variance(window); },
       [](const Values& values, const Values&) { return Expected{variance(values), 0}; }},
      {"variance of a sample", [](std::size_t window) { return make_variance(window, Of::sample); },
       of_sample([](const Values& values, const Values&) { return Expected{variance(values), 0}; },
                 1)},
      {"standard deviation", [](std::size_t window) { return make_standard_deviation(window); },
       [](const Values& values, const Values&) {
         return Expected{square_root(variance(values)), 0};
       }},
      {"standard deviation of a sample",
       [](std::size_t window) { return make_standard_deviation(window, Of::sample); },
       of_sample([](const Values& values,
                    const Values&) { return Expected{square_root(variance(values)), 0}; },
                 2)},
      {"z-score", make_z_score, z_score},
      {"covariance", [](std::size_t window) { return make_covariance(window); }, covariance, 2},
      {"covariance of a sample",
       [](std::size_t window) { return make_covariance(window, Of::sample); },
       of_sample(covariance, 1), 2},
      {"correlation", make_correlation, correlation, 2},
      {"skewness", [](std::size_t window) { return make_skewness(window); }, skewness},
      {"skewness of a sample", [](std::size_t window) { return make_skewness(window, Of::sample); },
       sample_skewness},
      {"kurtosis", [](std::size_t window) { return make_kurtosis(window); }, kurtosis},
      {"kurtosis of a sample", [](std::size_t window) { return make_kurtosis(window, Of::sample); },
       sample_kurtosis},
      {"decaying mean", make_decaying_mean, decaying_mean},
      {"exponential mean", make_exponential_mean, exponential_mean},
      {"product", make_product, product},
      {"rank", make_rank, rank},
      {"median", [](std::size_t window) { return make_quantile(window, 0.5); }, quantile(0.5)},
      {"quantile", [](std::size_t window) { return make_quantile(window, 0.83); }, quantile(0.83)},
      {"least quantile", [](std::size_t window) { return make_quantile(window, 0.0); },
       quantile(0.0)},
      {"greatest quantile", [](std::size_t window) { return make_quantile(window, 1.0); },
       quantile(1.0)},
      {"slope", make_slope, slope},
      {"intercept", make_intercept, intercept},
      {"residual", make_residual, residual},
  };
  return functions;
}

}  // namespace row_kernel_tests
