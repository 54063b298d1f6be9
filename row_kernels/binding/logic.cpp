#include "cells/cells.hpp"
#include "definition.hpp"
#include "functions.hpp"

namespace quernbrook::row_kernels::binding {

void define_logic(nb::module_& module) {
  const auto ieee = nb::arg("ieee") = false;
  define<make_less>(module, "numerical_less",
                    "1 where x < y, else 0. NaN in either gives NaN; with `ieee` 0.", ieee);
  define<make_less_equal>(module, "numerical_less_equal",
                          "1 where x <= y, else 0. NaN in either gives NaN; with `ieee` 0.", ieee);
  define<make_greater>(module, "numerical_greater",
                       "1 where x > y, else 0. NaN in either gives NaN; with `ieee` 0.", ieee);
  define<make_greater_equal>(module, "numerical_greater_equal",
                             "1 where x >= y, else 0. NaN in either gives NaN; with `ieee` 0.",
                             ieee);
  define<make_equal>(module, "numerical_equal",
                     "1 where x equals y, else 0. NaN in either gives NaN; with `ieee` 0.", ieee);
  define<make_not_equal>(
      module, "numerical_not_equal",
      "1 where x differs from y, else 0. NaN in either gives NaN; with `ieee` 1.", ieee);
  define<make_and>(
      module, "numerical_and",
      "1 where x and y are both true, else 0. Truth is any number but zero. NaN is a truth that "
      "is\n"
      "not known (S. C. Kleene, Introduction to Metamathematics, 1952, section 64): beside zero\n"
      "the result is 0, else NaN.");
  define<make_or>(
      module, "numerical_or",
      "1 where x or y is true, else 0. Truth is any number but zero. NaN is a truth that is not\n"
      "known (S. C. Kleene, Introduction to Metamathematics, 1952, section 64): beside a true one\n"
      "the result is 1, else NaN.");
  define<make_not>(module, "numerical_not", "1 where x is zero, else 0. NaN gives NaN.");
  define<make_where>(module, "numerical_where",
                     "x where the condition is true, y where it is zero, NaN where it is NaN. "
                     "Truth is any number\n"
                     "but zero. A NaN in the one that isn't chosen doesn't matter.");
}

}  // namespace quernbrook::row_kernels::binding
