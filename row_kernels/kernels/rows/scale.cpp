#include <algorithm>
#include <cmath>
#include <memory>

#include "instruction_sets.hpp"
#include "nan.hpp"
#include "rows/across_function.hpp"
#include "rows/rows.hpp"
#include "rows/sums.hpp"

namespace quernbrook::row_kernels {
namespace {

QUERNBROOK_WIDEST_REGISTERS void take_sizes(const double* __restrict row, double* __restrict sizes,
                                            std::size_t count) noexcept {
  for (std::size_t place = 0; place < count; ++place) {
    sizes[place] = is_nan(row[place]) ? 0.0 : std::fabs(row[place]);
  }
}

QUERNBROOK_WIDEST_REGISTERS void take_finite(const double* __restrict row,
                                             double* __restrict result,
                                             std::size_t count) noexcept {
  for (std::size_t place = 0; place < count; ++place) {
    result[place] = is_finite(row[place]) ? row[place] : nan;
  }
}

QUERNBROOK_WIDEST_REGISTERS void multiply(double* row, double factor, std::size_t count) noexcept {
  for (std::size_t place = 0; place < count; ++place) row[place] *= factor;
}

class Scale {
 public:
  Scale(std::size_t columns, double total, bool finite)
      : columns_(columns),
        total_(total),
        finite_(finite),
        sizes_(std::make_unique_for_overwrite<double[]>(columns)) {}

  void operator()(const double* row, double* result) noexcept {
    if (finite_) {
      take_finite(row, result, columns_);
    } else {
      std::copy_n(row, columns_, result);
    }
    take_sizes(result, sizes_.get(), columns_);
    const double size = pairwise_sum(sizes_.get(), columns_);
    if (size != 0.0) {
      multiply(result, total_ / size, columns_);
    } else if (finite_) {
      std::fill_n(result, columns_, nan);
    }
  }

 private:
  std::size_t columns_;
  double total_;
  bool finite_;
  std::unique_ptr<double[]> sizes_;
};

}  // namespace

std::unique_ptr<RowFunction> make_scale(double total, bool finite) {
  return make_across<Scale, 1>(total, finite);
}

}  // namespace quernbrook::row_kernels
