#pragma once

#include <cstddef>

namespace quernbrook::row_kernels {

/// Those values of one column's window that lie within bounds, sorted, and the number of those
/// below. It lives in memory of `memory_size(window)` doubles, which belongs to a tile.
class SortedRange {
 public:
  SortedRange(double* memory, std::size_t window) noexcept
      : head_(*reinterpret_cast<Head*>(memory)),
        values_(memory + sizeof(Head) / sizeof(double)),
        window_(window) {}

  static std::size_t memory_size(std::size_t window) noexcept {
    return sizeof(Head) / sizeof(double) + window;
  }

  /// Whether it holds the window's values, all of which are numbers.
  bool is_valid() const noexcept { return head_.clean_rows >= static_cast<double>(window_); }

  /// Forgets all rows.
  void clear() noexcept { head_ = {}; }

  /// A row leaves the window, if that is full, and another comes. `rows` are the window's values
  /// afterwards, `step` apart. The range is then one around the places from `first` to `last` of
  /// the sorted window: with `margin` more on each side whenever it is made anew.
  void replace(double oldest, double newest, const double* rows, std::size_t step,
               std::size_t first, std::size_t last, std::size_t margin) noexcept;

  /// Makes it anew after `clean_rows` rows without NaN.
  void rebuild(std::size_t clean_rows, const double* rows, std::size_t step, std::size_t first,
               std::size_t last, std::size_t margin) noexcept;

  /// The value at a place of the sorted window, from `first` to `last`.
  double value(std::size_t place) const noexcept {
    return values_[place - static_cast<std::size_t>(head_.below)];
  }

  /// How many values in a range of the whole window are less, and how many are not greater.
  std::size_t count_below(double value) const noexcept;
  std::size_t count_up_to(double value) const noexcept;

 private:
  // Numbers that are counts are doubles, as everything in a tile.
  struct Head {
    double clean_rows = 0.0;
    double is_made = 0.0;
    double below = 0.0;
    double size = 0.0;
    double most = 0.0;  // values before it is made anew
    double least = 0.0;
    double greatest = 0.0;
  };

  void make(const double* rows, std::size_t step, std::size_t first, std::size_t last,
            std::size_t margin) noexcept;
  void exchange(double oldest, double newest) noexcept;

  Head& head_;
  double* values_;
  std::size_t window_;
};

}  // namespace quernbrook::row_kernels
