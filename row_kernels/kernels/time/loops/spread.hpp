#pragma once

#include "time/loops/centre.hpp"

namespace quernbrook::row_kernels::QUERNBROOK_INSTRUCTION_SET {

struct SumsOfSquares {
  Lanes sum{};
  LongLanes squares{};

  void add(const Cells<1>& cells, const Centre<1>& centre) noexcept {
    const Lanes deviation = cells.of[0] - centre.of[0];
    sum += deviation;
    squares.add_square(deviation, lost(cells.of[0], centre.of[0], deviation));
  }

  /// Takes deviations as they are rounded, which is enough for few rows and their own mean.
  void add_near(const Cells<1>& cells, const Centre<1>& centre) noexcept {
    const Lanes deviation = cells.of[0] - centre.of[0];
    sum += deviation;
    squares.add_square(deviation);
  }

  void add_moved(const SumsOfSquares& others, const Centre<1>& shift, double length) noexcept {
    const Lanes shifts = length * shift.of[0];
    sum += shifts + others.sum;
    squares.add_growing(others.squares.value + shift.of[0] * (shifts + 2.0 * others.sum));
    squares.error += others.squares.error;
  }
};

/// Statistics of the squared deviations from the window's mean, for windows of 2 and more. A
/// derived structure gives `value(plan, deviation, squares)` from the newest value's deviation and
/// the sum of all squared ones; the plan's factor is what divides that sum.
template <class Derived>
struct Spread : Centred<1, SumsOfSquares> {
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
