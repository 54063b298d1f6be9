#pragma once

#include "time/loops/block_loops.hpp"

namespace quernbrook::row_kernels::QUERNBROOK_INSTRUCTION_SET {

/// Statistics of deviations measure them from a centre near the mean, so that hardly anything
/// cancels where values lie far from zero. The centre of all windows that end in a part is the mean
/// of the rows in their common parts. They hold about two thirds of a window at least, so that the
/// squared distance of the window's mean from the centre is hardly more than half of its variance.
/// Where all values are equal, means and centre are exactly that value.
template <std::size_t arguments>
struct Centre {
  Lanes of[arguments]{};
};

/// The mean of a part, nearly: measured from its first row.
template <std::size_t arguments, class Rows>
inline Centre<arguments> mean_of_part(const Rows& rows, std::size_t length) noexcept {
  const Cells<arguments> first = rows(0);
  Centre<arguments> mean;
  for (std::size_t a = 0; a < arguments; ++a) mean.of[a] = first.of[a] - first.of[a];
  for (std::size_t row = 1; row < length; ++row) {
    const Cells<arguments> cells = rows(row);
    for (std::size_t a = 0; a < arguments; ++a) mean.of[a] += cells.of[a] - first.of[a];
  }
  const double share = 1.0 / static_cast<double>(length);
  for (std::size_t a = 0; a < arguments; ++a) mean.of[a] = first.of[a] + mean.of[a] * share;
  return mean;
}

/// The mean of parts by their means, nearly: measured from that of the first.
template <std::size_t arguments, class Total, class Others>
inline Centre<arguments> mean_of_parts(const Others& others) noexcept {
  Centre<arguments> first;
  Centre<arguments> mean;
  double count = 0.0;
  others([&](const Total& total, std::size_t length, double) {
    if (count == 0.0) first = total.mean;
    const auto weight = static_cast<double>(length);
    count += weight;
    for (std::size_t a = 0; a < arguments; ++a) {
      mean.of[a] += weight * (total.mean.of[a] - first.of[a]);
    }
  });
  const double share = 1.0 / count;
  for (std::size_t a = 0; a < arguments; ++a) mean.of[a] = first.of[a] + mean.of[a] * share;
  return mean;
}

/// A statistic of sums of products of deviations. `Sums` are those, at first of no rows, with
///
///     add(cells, centre)                a row comes
///     add_moved(others, shift, length)  `length` rows come whose sums were measured from another
///                                       centre, `shift` above this one
///
/// A derived structure gives `finish`; see Group.
template <std::size_t count, class Sums>
struct Centred {
  static constexpr std::size_t arguments = count;

  struct Base {
    Centre<count> centre;
  };
  using Part = Sums;
  struct Total {
    Centre<count> mean;
    Sums sums;  // of the deviations from the mean as it is rounded
  };

  static void append(const Plan&, const Base& base, Part& newer, const Cells<count>& cells,
                     std::size_t) noexcept {
    newer.add(cells, base.centre);
  }

  static void prepend(const Plan&, const Base& base, Part& older, const Cells<count>& cells,
                      std::size_t) noexcept {
    older.add(cells, base.centre);
  }

  template <class Rows>
  static Total total(const Rows& rows, std::size_t length) noexcept {
    Total total{mean_of_part<count>(rows, length), {}};
    for (std::size_t row = 0; row < length; ++row) total.sums.add(rows(row), total.mean);
    return total;
  }

  template <class Others>
  static void common(const Plan&, const Others& others, Base& base, Part& older) noexcept {
    base.centre = mean_of_parts<count, Total>(others);
    others([&](const Total& total, std::size_t length, double) {
      Centre<count> shift;
      for (std::size_t a = 0; a < count; ++a) {
        shift.of[a] = total.mean.of[a] - base.centre.of[a];
      }
      older.add_moved(total.sums, shift, static_cast<double>(length));
    });
  }
};

}  // namespace quernbrook::row_kernels::QUERNBROOK_INSTRUCTION_SET
