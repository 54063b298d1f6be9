#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace quernbrook::kernels {

/// Sorts the cells of one row after another, all of the same number of columns (below 2^32).
class RowSorter {
 public:
  explicit RowSorter(std::size_t columns);

  /// Sorts a row of contiguous cells ascending: negative infinities, finite values, then positive
  /// infinities and NaN together. Within the first and the last group columns keep their order.
  /// Returns false if two finite values are equal; the order is then unspecified.
  ///
  /// `target` is where the caller will write next, as many cells: they are fetched meanwhile.
  bool sort(const double* cells, const double* target) { return sort(cells, target, false); }

  /// The same, but equal finite values keep their columns' order. Returns false if there are any.
  bool sort_with_ties(const double* cells, const double* target) {
    return sort(cells, target, true);
  }

  /// The number of cells of the last row that are not NaN.
  std::size_t count() const noexcept { return census_.count; }
  std::size_t negative_infinities() const noexcept { return census_.negative_infinities; }
  std::size_t finite() const noexcept { return census_.finite; }
  bool has_positive_infinity() const noexcept { return census_.has_positive_infinity; }

  /// The column of the cell at a place of the last row.
  std::size_t column(std::size_t place) const noexcept { return keys_[place] & column_mask_; }

 private:
  struct Census {
    double least;  // of the finite values, as is `greatest`
    double greatest;
    std::size_t count;
    std::size_t negative_infinities;
    std::size_t finite;
    bool has_positive_infinity;
  };
  enum class Outcome { sorted, tied, crowded };

  bool sort(const double* cells, const double* target, bool keeps_ties);
  static Census take_census(const double* cells, std::size_t columns) noexcept;
  template <int column_bits, int digit_bits>
  Outcome sort_by_value(const double* cells, const double* target);
  Outcome sort_by_bits(const double* cells);
  Outcome sort_by_comparison(const double* cells);
  template <class Key>
  Outcome settle_neighbours(Key* keys, Key column_mask, const double* cells,
                            std::size_t comparisons) noexcept;

  std::size_t columns_;
  bool keeps_ties_ = false;
  bool has_ties_ = false;  // the last row, if they are kept
  Census census_{};
  std::uint32_t column_mask_ = 0;
  std::size_t rows_by_bits_ = 0;  // to come, before sorting by value is tried again
  std::vector<std::uint32_t> keys_;
  std::vector<std::uint32_t> spare_keys_;
  std::vector<std::uint64_t> wide_keys_;
  std::vector<std::uint64_t> spare_wide_keys_;
  std::vector<std::uint32_t> counters_;
  std::vector<double> values_;  // of a row that is sorted by comparison
};

}  // namespace quernbrook::kernels
