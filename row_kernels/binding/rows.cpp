#include "rows/rows.hpp"

#include <memory>

#include "definition.hpp"
#include "functions.hpp"
#include "nan.hpp"

namespace quernbrook::row_kernels::binding {
namespace {

std::unique_ptr<RowFunction> make_rank_of_any() { return make_rank(0.5); }

}  // namespace

void define_rows(nb::module_& module) {
  define<make_rank_of_any>(
      module, "latitudinal_rank",
      "Ranks from 0 (smallest) to 1 (largest), (place - 1) / (numbers - 1). Equal numbers share "
      "the\n"
      "average of their ranks, infinities included; the only number of a row ranks 0.5. NaN cells\n"
      "stay NaN and count for nothing.");
  define<make_rank>(module, "latitudinal_relative_rank",
                    "The same as latitudinal_rank, but the only number of a row ranks `lone`: by "
                    "default NaN, for\n"
                    "there is nothing that it could be compared with.",
                    nb::arg("lone") = nan);
  define<make_demean>(module, "latitudinal_demean",
                      "The row less its mean, in the units of the row; exact zeros where all "
                      "numbers are equal. NaN\n"
                      "cells stay NaN and count for nothing.");
  define<make_z_score>(module, "latitudinal_zscore",
                       "The row less its mean, in population standard deviations; 0 where all "
                       "numbers are equal. NaN\n"
                       "cells stay NaN and count for nothing.");
  define<make_group_demean>(module, "latitudinal_demean_within_groups",
                            "The row less the mean of the column's group, in the units of the row; "
                            "exact zeros where all\n"
                            "numbers of a group are equal. The second row holds each column's "
                            "group as a number. NaN cells\n"
                            "stay NaN and count for nothing; NaN as a group gives NaN.");
  define<make_scale>(
      module, "latitudinal_scale",
      "The row times a factor, so that its absolute values sum to `total`; a row of zeros stays as "
      "it\n"
      "is. With `infinities_as_nan`, an infinity is NaN, and a row of zeros is, since its factor\n"
      "would be infinite. NaN cells stay NaN and count for nothing.",
      nb::arg("total") = 1.0, nb::arg("infinities_as_nan") = false);
  define<make_winsorize>(module, "latitudinal_winsorize",
                         "The lowest and the highest `share` of the numbers, from 0 to below 0.5 "
                         "and rounded down, become\n"
                         "the nearest of the rest, in the units of the row (as SciPy's winsorize). "
                         "NaN cells stay NaN\n"
                         "and count for nothing.",
                         nb::arg("share") = 0.05);
  define<make_top_share>(module, "latitudinal_top_share",
                         "1 for the highest `share` of the numbers, above 0 to 1 and rounded up, "
                         "and for all that equal\n"
                         "one of them; 0 for the rest. NaN cells stay NaN and count for nothing.",
                         nb::arg("share") = 0.2);
  define<make_bottom_share>(
      module, "latitudinal_bottom_share",
      "1 for the lowest `share` of the numbers, above 0 to 1 and rounded up, and for all that "
      "equal\n"
      "one of them; 0 for the rest. NaN cells stay NaN and count for nothing.",
      nb::arg("share") = 0.2);
}

}  // namespace quernbrook::row_kernels::binding
