#include "time_functions.hpp"

#include <algorithm>

#include "time/functions.hpp"

namespace row_kernel_tests {
namespace {

using namespace quernbrook::row_kernels;
using Values = std::vector<double>;

Wide magnitude(Wide value) { return value < 0 ? -value : value; }

Expected exactly(double value) { return {value, 0}; }

Wide sum(const Values& values) {
  Wide sum = 0;
  for (const double value : values) sum += value;
  return sum;
}

Wide absolute_sum(const Values& values) {
  Wide sum = 0;
  for (const double value : values) sum += magnitude(value);
  return sum;
}

Wide mean(const Values& values) { return sum(values) / values.size(); }

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
  };
  return functions;
}

}  // namespace row_kernel_tests
