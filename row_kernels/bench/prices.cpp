// Prints nanoseconds a cell of the functions along time, by processor time in one thread: the
// lower quartile of many runs over a whole matrix at once.
//
//     row_kernel_prices [ROWS COLUMNS [NAME ...]]     2000 500 and all functions unless told

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "time/functions.hpp"

namespace {

using namespace quernbrook::row_kernels;

using Make = std::function<std::unique_ptr<WindowFunction>(std::size_t)>;

const std::vector<std::pair<std::string, Make>> functions = {
    {"delay", make_delay},
    {"delta", make_delta},
    {"sum", make_sum},
    {"mean", make_mean},
    {"maximum", make_maximum},
    {"minimum", make_minimum},
    {"maximum_age", make_maximum_age},
    {"minimum_age", make_minimum_age},
    {"variance", [](std::size_t window) { return make_variance(window); }},
    {"standard_deviation", [](std::size_t window) { return make_standard_deviation(window); }},
    {"z_score", make_z_score},
    {"covariance", [](std::size_t window) { return make_covariance(window); }},
    {"correlation", make_correlation},
    {"skewness", [](std::size_t window) { return make_skewness(window); }},
    {"kurtosis", [](std::size_t window) { return make_kurtosis(window); }},
    {"decaying_mean", make_decaying_mean},
    {"exponential_mean", make_exponential_mean},
    {"product", make_product},
    {"rank", make_rank},
    {"quantile", [](std::size_t window) { return make_quantile(window, 0.5); }},
    {"slope", make_slope},
    {"intercept", make_intercept},
    {"residual", make_residual},
};

double nanoseconds_a_cell(const Make& make, std::size_t window, const std::vector<double>& first,
                          const std::vector<double>& second, std::ptrdiff_t rows,
                          std::ptrdiff_t columns) {
  std::vector<double> result(first.size());
  const Rows arguments[] = {{first.data(), columns}, {second.data(), columns}};
  std::vector<double> prices;
  const std::clock_t end = std::clock() + CLOCKS_PER_SEC / 5;
  while (prices.size() < 3 || std::clock() < end) {
    const std::unique_ptr<WindowFunction> function = make(window);
    const std::clock_t start = std::clock();
    function->run(arguments, rows, columns, result.data());
    const auto took = static_cast<double>(std::clock() - start) * (1e9 / CLOCKS_PER_SEC);
    prices.push_back(took / static_cast<double>(result.size()));
  }
  const auto quartile = prices.begin() + static_cast<std::ptrdiff_t>(prices.size() / 4);
  std::nth_element(prices.begin(), quartile, prices.end());
  return *quartile;
}

}  // namespace

int main(int count, char** words) {
  const std::ptrdiff_t rows = count > 2 ? std::atol(words[1]) : 2000;
  const std::ptrdiff_t columns = count > 2 ? std::atol(words[2]) : 500;
  std::mt19937_64 bits(7);
  std::normal_distribution<double> normal;
  std::vector<double> first(static_cast<std::size_t>(rows * columns));
  std::vector<double> second(first.size());
  for (double& value : first) value = normal(bits);
  for (double& value : second) value = normal(bits);

  const std::size_t windows[] = {5, 20, 60, 250, 1000, 5000};
  std::printf("%-18s", "ns a cell, window");
  for (const std::size_t window : windows) std::printf("%9zu", window);
  std::printf("\n");
  for (const auto& [name, make] : functions) {
    bool is_wanted = count <= 3;
    for (int word = 3; word < count; ++word) is_wanted |= name == words[word];
    if (!is_wanted) continue;
    std::printf("%-18s", name.c_str());
    for (const std::size_t window : windows) {
      if (static_cast<std::ptrdiff_t>(window) >= rows) {
        std::printf("%9s", "-");
        continue;
      }
      std::printf("%9.2f", nanoseconds_a_cell(make, window, first, second, rows, columns));
      std::fflush(stdout);
    }
    std::printf("\n");
  }
}
