#include "definition.hpp"
#include "functions.hpp"
#include "time/functions.hpp"

namespace quernbrook::row_kernels::binding {

void define_time(nb::module_& module) {
  const auto window = nb::arg("window");
  define<make_delay>(module, "longitudinal_delay",
                     "The value of `window` rows ago, in its units. NaN for the first `window` rows.", window);
  define<make_delta>(module, "longitudinal_delta",
                     "The newest value less that of `window` rows ago, in its units. NaN where either is, and for\n"
                     "the first `window` rows.",
                     window);
  define<make_sum>(module, "longitudinal_sum",
                   "The sum over the window, in the units of the row. NaN anywhere in the window gives NaN, and so\n"
                   "do the first window - 1 rows.",
                   window);
  define<make_mean>(module, "longitudinal_mean",
                    "The mean over the window, in the units of the row. NaN anywhere in the window gives NaN, and\n"
                    "so do the first window - 1 rows.",
                    window);
  define<make_maximum>(module, "longitudinal_max",
                       "The greatest value of the window, in the units of the row. NaN anywhere in the window gives\n"
                       "NaN, and so do the first window - 1 rows.",
                       window);
  define<make_minimum>(module, "longitudinal_min",
                       "The least value of the window, in the units of the row. NaN anywhere in the window gives NaN,\n"
                       "and so do the first window - 1 rows.",
                       window);
  define<make_maximum_age>(module, "longitudinal_days_since_max",
                           "Rows since the greatest value of the window: 0 for the newest row, the earliest of equal\n"
                           "ones. NaN anywhere in the window gives NaN, and so do the first window - 1 rows.",
                           window);
  define<make_minimum_age>(module, "longitudinal_days_since_min",
                           "Rows since the least value of the window: 0 for the newest row, the earliest of equal\n"
                           "ones. NaN anywhere in the window gives NaN, and so do the first window - 1 rows.",
                           window);
}

}  // namespace quernbrook::row_kernels::binding
