#pragma once

#include "time/loops/centre.hpp"

namespace quernbrook::row_kernels::QUERNBROOK_INSTRUCTION_SET {

/// Statistics of the squared deviations from the window's mean, for windows of 2 and more. A
/// derived structure gives `value(plan, deviation, squares)` from the newest value's deviation and
/// the sum of all squared ones; the plan's factor is what divides that sum.
template <class Derived>
struct Spread {
  static constexpr std::size_t arguments = 1;

  struct Base {
    Centre<1> centre;
  };
  struct Part {
    Lanes sum{};
    LongLanes squares{};

    /// Takes deviations as they are rounded, which is enough for few rows and their own mean.
    void add_near(Lanes value, Lanes centre) noexcept {
      const Lanes deviation = value - centre;
      sum += deviation;
      squares.add_square(deviation);
    }

    void add(Lanes value, Lanes centre) noexcept {
      const Lanes deviation = value - centre;
      sum += deviation;
      squares.add_square(deviation, lost(value, centre, deviation));
    }
  };
  struct Total {
    Centre<1> mean;
    Lanes sum;  // of the deviations from the mean as it is rounded
    Lanes squares;
  };

  static void append(const Plan&, const Base& base, Part& newer, const Cells<1>& cells,
                     std::size_t) noexcept {
    newer.add(cells.of[0], base.centre.of[0]);
  }

  static void prepend(const Plan&, const Base& base, Part& older, const Cells<1>& cells,
                      std::size_t) noexcept {
    older.add(cells.of[0], base.centre.of[0]);
  }

  template <class Rows>
  static Total total(const Rows& rows, std::size_t length) noexcept {
    const Centre<1> mean = mean_of_part<1>(rows, length);
    Part part;
    for (std::size_t row = 0; row < length; ++row) part.add(rows(row).of[0], mean.of[0]);
    return {mean, part.sum, part.squares.value + part.squares.error};
  }

  template <class Others>
  static void common(const Plan&, const Others& others, Base& base, Part& older) noexcept {
    base.centre = mean_of_parts<1, Total>(others);
    others([&](const Total& total, std::size_t length, double) {
      const Lanes shift = total.mean.of[0] - base.centre.of[0];
      const Lanes shifts = static_cast<double>(length) * shift;
      older.sum += shifts + total.sum;
      older.squares.add_growing(total.squares + shift * (shifts + 2.0 * total.sum));
    });
  }

  static Lanes finish(const Plan& plan, const Base& base, Part older, const Part& newer,
                      const Cells<1>& cells, std::size_t) noexcept {
    older.squares.add(newer.squares);
    const Lanes sum = older.sum + newer.sum;
    const Lanes mean = sum * (1.0 / static_cast<double>(plan.window));
    return Derived::value(plan, cells.of[0] - base.centre.of[0] - mean,
                          older.squares.less(sum * mean));
  }
};

struct Variance : Spread<Variance> {
  static Lanes value(const Plan& plan, Lanes, Lanes squares) noexcept {
    return squares / plan.factor;
  }
};

// To multiply costs half a unit in the last place, which the root halves, and saves a third of the
// time.
struct StandardDeviation : Spread<StandardDeviation> {
  static Lanes value(const Plan& plan, Lanes, Lanes squares) noexcept {
    return square_root(squares * (1.0 / plan.factor));
  }
};

/// 0 where all values of the window are equal.
struct ZScore : Spread<ZScore> {
  static Lanes value(const Plan& plan, Lanes deviation, Lanes squares) noexcept {
    return select(squares == 0.0, squares, deviation / square_root(squares * (1.0 / plan.factor)));
  }
};

}  // namespace quernbrook::row_kernels::QUERNBROOK_INSTRUCTION_SET
