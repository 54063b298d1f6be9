#include "time/sorted_range.hpp"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

namespace quernbrook::row_kernels {
namespace {

constexpr double infinity = std::numeric_limits<double>::infinity();

// The number of values for which `is_before` holds, which are the first. Without branches, which
// would be foreseen every second time.
template <class IsBefore>
std::size_t count_first(const double* values, std::size_t size, IsBefore is_before) noexcept {
  const double* first = values;
  while (size > 1) {
    const std::size_t half = size / 2;
    first += half & -static_cast<std::size_t>(is_before(first[half - 1]));
    size -= half;
  }
  return static_cast<std::size_t>(first - values) + (size == 1 && is_before(*first) ? 1 : 0);
}

void move(double* to, const double* from, const double* end) noexcept {
  std::memmove(to, from, static_cast<std::size_t>(end - from) * sizeof(double));
}

}  // namespace

std::size_t SortedRange::count_below(double value) const noexcept {
  return count_first(values_, static_cast<std::size_t>(head_.size),
                     [=](double other) { return other < value; });
}

std::size_t SortedRange::count_up_to(double value) const noexcept {
  return count_first(values_, static_cast<std::size_t>(head_.size),
                     [=](double other) { return other <= value; });
}

void SortedRange::replace(double oldest, double newest, const double* rows, std::size_t step,
                          std::size_t first, std::size_t last, std::size_t margin) noexcept {
  head_.clean_rows = std::isnan(newest) ? 0.0 : head_.clean_rows + 1.0;
  if (!is_valid()) {
    head_.is_made = 0.0;
    return;
  }
  if (head_.is_made != 0.0) {
    exchange(oldest + 0.0, newest + 0.0);
    if (head_.below <= static_cast<double>(first) &&
        static_cast<double>(last) < head_.below + head_.size && head_.size <= head_.most) {
      return;
    }
  }
  make(rows, step, first, last, margin);
}

void SortedRange::rebuild(std::size_t clean_rows, const double* rows, std::size_t step,
                          std::size_t first, std::size_t last, std::size_t margin) noexcept {
  clear();
  head_.clean_rows = static_cast<double>(clean_rows);
  if (is_valid()) make(rows, step, first, last, margin);
}

void SortedRange::exchange(double oldest, double newest) noexcept {
  const bool leaves = head_.least <= oldest && oldest <= head_.greatest;
  const bool comes = head_.least <= newest && newest <= head_.greatest;
  head_.below +=
      static_cast<double>(newest < head_.least) - static_cast<double>(oldest < head_.least);
  if (!leaves && !comes) return;
  double* end = values_ + static_cast<std::size_t>(head_.size);
  double* hole = leaves ? values_ + count_below(oldest) : end;
  double* place = comes ? values_ + count_below(newest) : end;
  if (leaves && comes) {
    if (hole < place) {
      move(hole, hole + 1, place--);
    } else {
      move(place + 1, place, hole);
    }
    *place = newest;
  } else if (leaves) {
    move(hole, hole + 1, end);
    head_.size -= 1.0;
  } else {
    move(place + 1, place, end);
    *place = newest;
    head_.size += 1.0;
  }
}

void SortedRange::make(const double* rows, std::size_t step, std::size_t first, std::size_t last,
                       std::size_t margin) noexcept {
  // Both zeros become the same one.
  for (std::size_t row = 0; row < window_; ++row) values_[row] = rows[row * step] + 0.0;
  double* const all_end = values_ + window_;
  double* begin = values_ + (first > margin ? first - margin : 0);
  double* end = values_ + std::min(window_, last + 1 + margin);
  if (begin != values_) std::nth_element(values_, begin, all_end);
  if (end != all_end) std::nth_element(begin, end - 1, all_end);
  std::sort(begin, end);
  head_.least = begin == values_ ? -infinity : *begin;
  head_.greatest = end == all_end ? infinity : *(end - 1);
  // What equals the bounds belongs to the range.
  const double least = head_.least;
  const double greatest = head_.greatest;
  begin = std::partition(values_, begin, [=](double value) { return value < least; });
  end = std::partition(end, all_end, [=](double value) { return value <= greatest; });
  head_.below = static_cast<double>(begin - values_);
  head_.size = static_cast<double>(end - begin);
  head_.most = 2.0 * head_.size + static_cast<double>(margin);
  head_.is_made = 1.0;
  move(values_, begin, end);
}

}  // namespace quernbrook::row_kernels
