#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <functional>
#include <memory>
#include <stdexcept>

#include "instruction_sets.hpp"
#include "nan.hpp"
#include "rows/across_function.hpp"
#include "rows/rows.hpp"
#include "rows/sums.hpp"

namespace quernbrook::row_kernels {
namespace {

// A share of a number of cells that is whole but for rounding counts as whole.
constexpr double slack = 1e-9;

/// The numbers of a row, of which single places in the sorted order are asked for.
class Numbers {
 public:
  explicit Numbers(std::size_t columns)
      : columns_(columns), values_(std::make_unique_for_overwrite<double[]>(columns)) {}

  std::size_t take(const double* row) noexcept {
    count_ = take_numbers(row, row, values_.get(), columns_);
    return count_;
  }

  /// The value at a place of the sorted numbers; a zero is positive.
  double at(std::size_t place) noexcept {
    double* value = values_.get() + place;
    std::nth_element(values_.get(), value, values_.get() + count_);
    return *value + 0.0;
  }

 private:
  std::size_t columns_;
  std::size_t count_ = 0;
  std::unique_ptr<double[]> values_;
};

QUERNBROOK_WIDEST_REGISTERS void limit(const double* __restrict row, double low, double high,
                                       double* __restrict result, std::size_t count) noexcept {
  for (std::size_t place = 0; place < count; ++place) {
    const double value = row[place];
    result[place] = value < low ? low : value > high ? high : value;
  }
}

class Winsorize {
 public:
  Winsorize(std::size_t columns, double share)
      : columns_(columns), share_(share), numbers_(columns) {}

  void operator()(const double* row, double* result) noexcept {
    const std::size_t count = numbers_.take(row);
    auto cut = static_cast<std::size_t>(std::floor(share_ * static_cast<double>(count) + slack));
    if (cut == 0) {
      std::copy_n(row, columns_, result);
      return;
    }
    // A share near a half leaves the middle.
    cut = std::min(cut, (count - 1) / 2);
    const double low = numbers_.at(cut);
    limit(row, low, numbers_.at(count - 1 - cut), result, columns_);
  }

 private:
  std::size_t columns_;
  double share_;
  Numbers numbers_;
};

template <class IsWithin>
QUERNBROOK_WIDEST_REGISTERS void mark(const double* __restrict row, double border,
                                      double* __restrict result, std::size_t count) noexcept {
  for (std::size_t place = 0; place < count; ++place) {
    const double within = IsWithin{}(row[place], border) ? 1.0 : 0.0;
    result[place] = is_nan(row[place]) ? nan : within;
  }
}

template <bool is_top>
class Share {
 public:
  Share(std::size_t columns, double share) : columns_(columns), share_(share), numbers_(columns) {}

  void operator()(const double* row, double* result) noexcept {
    const std::size_t count = numbers_.take(row);
    if (count == 0) {
      std::copy_n(row, columns_, result);
      return;
    }
    const double size = std::ceil(share_ * static_cast<double>(count) - slack);
    const auto within = static_cast<std::size_t>(std::max(size, 1.0));
    if constexpr (is_top) {
      mark<std::greater_equal<>>(row, numbers_.at(count - within), result, columns_);
    } else {
      mark<std::less_equal<>>(row, numbers_.at(within - 1), result, columns_);
    }
  }

 private:
  std::size_t columns_;
  double share_;
  Numbers numbers_;
};

[[noreturn]] void refuse_share(const char* range, double share) {
  std::array<char, 80> text{};
  std::snprintf(text.data(), text.size(), "share must be %s; got %g", range, share);
  throw std::invalid_argument(text.data());
}

template <bool is_top>
std::unique_ptr<RowFunction> make_share(double share) {
  if (!(share > 0.0 && share <= 1.0)) refuse_share("above 0 and at most 1", share);
  return make_across<Share<is_top>, 1>(share);
}

}  // namespace

std::unique_ptr<RowFunction> make_winsorize(double share) {
  if (!(share >= 0.0 && share < 0.5)) refuse_share("at least 0 and below 0.5", share);
  return make_across<Winsorize, 1>(share);
}

std::unique_ptr<RowFunction> make_top_share(double share) { return make_share<true>(share); }
std::unique_ptr<RowFunction> make_bottom_share(double share) { return make_share<false>(share); }

}  // namespace quernbrook::row_kernels
