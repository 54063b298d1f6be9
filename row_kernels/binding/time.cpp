#include <memory>

#include "definition.hpp"
#include "functions.hpp"
#include "time/functions.hpp"

namespace quernbrook::row_kernels::binding {

namespace {

Of divisor(bool sample) { return sample ? Of::sample : Of::population; }

std::unique_ptr<WindowFunction> make_variance_of(std::size_t window, bool sample) {
  return make_variance(window, divisor(sample));
}

std::unique_ptr<WindowFunction> make_std(std::size_t window) {
  return make_standard_deviation(window, Of::population);
}

std::unique_ptr<WindowFunction> make_sample_std(std::size_t window) {
  return make_standard_deviation(window, Of::sample);
}

std::unique_ptr<WindowFunction> make_covariance_of(std::size_t window, bool sample) {
  return make_covariance(window, divisor(sample));
}

std::unique_ptr<WindowFunction> make_skewness_of(std::size_t window, bool sample) {
  return make_skewness(window, divisor(sample));
}

std::unique_ptr<WindowFunction> make_kurtosis_of(std::size_t window, bool sample) {
  return make_kurtosis(window, divisor(sample));
}

std::unique_ptr<WindowFunction> make_rank_of_newest(std::size_t window) {
  return make_rank(window);
}

// What all of them but delay and delta have in common.
#define STRICT_WINDOW "NaN anywhere in the window gives NaN, and so do the first window - 1 rows."

}  // namespace

void define_time(nb::module_& module) {
  const auto window = nb::arg("window");
  const auto sample = nb::arg("sample") = false;
  define<make_delay>(
      module, "longitudinal_delay",
      "The value of `window` rows ago, in its units. NaN for the first `window` rows.", window);
  define<make_delta>(module, "longitudinal_delta",
                     "The newest value less that of `window` rows ago, in its units. NaN where "
                     "either is, and for\n"
                     "the first `window` rows.",
                     window);
  define<make_sum>(module, "longitudinal_sum",
                   "The sum over the window, in the units of the row.\n" STRICT_WINDOW, window);
  define<make_mean>(module, "longitudinal_mean",
                    "The mean over the window, in the units of the row.\n" STRICT_WINDOW, window);
  define<make_std>(module, "longitudinal_std",
                   "The population standard deviation over the window, in the units of the row; "
                   "exactly 0 where\n"
                   "all values are equal.\n" STRICT_WINDOW,
                   window);
  define<make_sample_std>(
      module, "longitudinal_sample_std",
      "The standard deviation of the window as a sample (divisor window - 1), in the units of the\n"
      "row; exactly 0 where all values are equal, NaN for a window of 1.\n" STRICT_WINDOW,
      window);
  define<make_variance_of>(
      module, "longitudinal_variance",
      "The variance over the window, in squared units of the row; exactly 0 where all values are\n"
      "equal. Of the population; with `sample` the divisor is window - 1, and a window of 1 gives\n"
      "NaN.\n" STRICT_WINDOW,
      window, sample);
  define<make_z_score>(module, "longitudinal_zscore",
                       "The newest value less the window's mean, in population standard "
                       "deviations; 0 where all values\n"
                       "are equal.\n" STRICT_WINDOW,
                       window);
  define<make_product>(
      module, "longitudinal_product",
      "The product over the window, in the units of the row to the power `window`.\n" STRICT_WINDOW,
      window);
  define<make_maximum>(module, "longitudinal_max",
                       "The greatest value of the window, in the units of the row.\n" STRICT_WINDOW,
                       window);
  define<make_minimum>(module, "longitudinal_min",
                       "The least value of the window, in the units of the row.\n" STRICT_WINDOW,
                       window);
  define<make_maximum_age>(
      module, "longitudinal_days_since_max",
      "Rows since the greatest value of the window: 0 for the newest row, the earliest of equal\n"
      "ones.\n" STRICT_WINDOW,
      window);
  define<make_minimum_age>(
      module, "longitudinal_days_since_min",
      "Rows since the least value of the window: 0 for the newest row, the earliest of equal\n"
      "ones.\n" STRICT_WINDOW,
      window);
  define<make_covariance_of>(
      module, "longitudinal_covariance",
      "The covariance of two rows over the window, in the product of their units. Of the "
      "population;\n"
      "with `sample` the divisor is window - 1, and a window of 1 gives NaN.\n" STRICT_WINDOW,
      window, sample);
  define<make_correlation>(module, "longitudinal_correlation",
                           "Pearson's correlation of two rows over the window, from -1 to 1; NaN "
                           "where all values of one\n"
                           "are equal, and exactly -1 or 1 for a window of 2.\n" STRICT_WINDOW,
                           window);
  define<make_skewness_of>(
      module, "longitudinal_skewness",
      "The third standardized moment over the window; with `sample` Fisher's adjusted one, for\n"
      "windows of 3 and more. NaN where all values are equal.\n" STRICT_WINDOW,
      window, sample);
  define<make_kurtosis_of>(
      module, "longitudinal_kurtosis",
      "The fourth standardized moment over the window less 3, which a normal distribution has; "
      "with\n"
      "`sample` Fisher's adjusted one, for windows of 4 and more. NaN where all values are\n"
      "equal.\n" STRICT_WINDOW,
      window, sample);
  define<make_decaying_mean>(module, "longitudinal_decay_mean",
                             "The mean with weights that fall linearly with age, from `window` for "
                             "the newest row to 1 for\n"
                             "the oldest, in the units of the row.\n" STRICT_WINDOW,
                             window);
  define<make_exponential_mean>(
      module, "longitudinal_exponential_mean",
      "The mean over the window with weights that fall with age in the ratio 1 - 2 / (window + 1), "
      "in\n"
      "the units of the row. Nothing before the window counts.\n" STRICT_WINDOW,
      window);
  define<make_rank_of_newest>(
      module, "longitudinal_rank",
      "The rank of the newest value in the window, from 0 (smallest) to 1 (largest), (place - 1) "
      "/\n"
      "(window - 1); equal values share the average of their ranks. NaN for a window of 1, where\n"
      "nothing is compared.\n" STRICT_WINDOW,
      window);
  define<make_quantile>(
      module, "longitudinal_quantile",
      "The value below which a `share` of the window lies, from 0 to 1, between two values in\n"
      "proportion, in the units of the row: the seventh definition of R. J. Hyndman and Y. Fan, "
      "Sample\n"
      "Quantiles in Statistical Packages, 1996.\n" STRICT_WINDOW,
      window, nb::arg("share") = 0.5);
  define<make_slope>(module, "longitudinal_slope",
                     "The rise of the line of least squares over the window from one row to the "
                     "next, in the units of\n"
                     "the row; NaN for a window of 1.\n" STRICT_WINDOW,
                     window);
  define<make_intercept>(module, "longitudinal_intercept",
                         "The value of the line of least squares at the oldest row of the window, "
                         "in the units of the\n"
                         "row.\n" STRICT_WINDOW,
                         window);
  define<make_residual>(module, "longitudinal_residual",
                        "The newest value less that of the line of least squares over the window, "
                        "in the units of the\n"
                        "row.\n" STRICT_WINDOW,
                        window);
}

}  // namespace quernbrook::row_kernels::binding
