#include "cells/cells.hpp"
#include "definition.hpp"
#include "functions.hpp"

namespace quernbrook::row_kernels::binding {

void define_arithmetic(nb::module_& module) {
  define<make_add>(module, "numerical_add", "x + y. NaN in either gives NaN.");
  define<make_subtract>(module, "numerical_subtract", "x - y. NaN in either gives NaN.");
  define<make_multiply>(module, "numerical_multiply",
                        "x * y. NaN in either gives NaN, and so does zero times infinity.");
  define<make_divide>(module, "numerical_divide",
                      "x / y as IEEE 754 has it: a number over zero is infinite, zero over zero "
                      "NaN. NaN in either\n"
                      "gives NaN. With `infinities_as_nan`, an infinite quotient is NaN.",
                      nb::arg("infinities_as_nan") = false);
  define<make_negate>(module, "numerical_negate", "-x. NaN gives NaN.");
  define<make_absolute>(module, "numerical_absolute", "x without its sign. NaN gives NaN.");
  define<make_sign>(module, "numerical_sign",
                    "1, 0 or -1, as x is above, at or below zero. NaN gives NaN.");
  define<make_minimum>(module, "numerical_minimum",
                       "The lesser of x and y; of equal ones x. A NaN counts only beside another; "
                       "without `skip_nan`,\n"
                       "NaN in either gives NaN.",
                       nb::arg("skip_nan") = true);
  define<make_maximum>(
      module, "numerical_maximum",
      "The greater of x and y; of equal ones x. A NaN counts only beside another; without\n"
      "`skip_nan`, NaN in either gives NaN.",
      nb::arg("skip_nan") = true);
  define<make_logarithm>(
      module, "numerical_logarithm",
      "The natural logarithm, as the C library computes it. Zero, numbers below it and NaN give\n"
      "NaN.");
  define<make_power>(module, "numerical_power",
                     "x to the power y, as the C library computes it. A negative x keeps its sign "
                     "for odd whole y, and\n"
                     "gives NaN for y that is not whole; zero to a negative power is infinite. NaN "
                     "in either gives\n"
                     "NaN.");
  define<make_signed_power>(
      module, "numerical_signed_power",
      "The sign of x times the power y of its absolute value. NaN in either gives NaN, and so\n"
      "does zero to a negative power.");
}

}  // namespace quernbrook::row_kernels::binding
