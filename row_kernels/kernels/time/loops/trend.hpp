#pragma once

#include "time/loops/block_loops.hpp"

namespace quernbrook::row_kernels::QUERNBROOK_INSTRUCTION_SET {

/// Sums weighted by time, in twice the working precision: the weights come about by adding sums
/// again and again. A derived structure gives `value(plan, sum, weighted, newest)` from the sum
/// over the window, the sum in which the oldest row has weight 1 and the newest the window's
/// length, and the newest value.
template <class Derived>
struct Trend {
  static constexpr std::size_t arguments = 1;

  struct Base {};
  // Weights rise by 1 from the oldest of the older rows, which has 1; of the newer rows they rise
  // with age, from the newest, which has 0.
  struct Part {
    LongLanes sum{};
    LongLanes weighted{};
  };
  using Total = Part;

  static void append(const Plan&, const Base&, Part& newer, const Cells<1>& cells,
                     std::size_t) noexcept {
    newer.weighted.add(newer.sum);
    newer.sum.add(cells.of[0]);
  }

  static void prepend(const Plan&, const Base&, Part& older, const Cells<1>& cells,
                      std::size_t) noexcept {
    older.sum.add(cells.of[0]);
    older.weighted.add(older.sum);
  }

  template <class Others>
  static void common(const Plan&, const Others& others, Base&, Part& older) noexcept {
    double count = 0.0;
    others([&](const Total& total, std::size_t length, double) {
      count += static_cast<double>(length);
      add_newer(older, total, count);
    });
  }

  static Lanes finish(const Plan& plan, const Base&, Part older, const Part& newer,
                      const Cells<1>& cells, std::size_t) noexcept {
    add_newer(older, newer, static_cast<double>(plan.window));
    return Derived::value(plan, older.sum, older.weighted, cells.of[0]);
  }

 private:
  // After which there are `count` rows.
  static void add_newer(Part& older, const Part& newer, double count) noexcept {
    older.sum.add(newer.sum);
    older.weighted.add(exact_multiple(count, newer.sum));
    // The sum is infinite, too, where this is, and infinity less infinity would be NaN.
    const LongLanes& less = newer.weighted;
    older.weighted.add({select(is_finite(less.value), -less.value, Lanes{}), -less.error});
  }
};

/// Mean with weights that fall linearly with age to 1 for the oldest row.
struct DecayingMean : Trend<DecayingMean> {
  static Lanes value(const Plan& plan, const LongLanes&, const LongLanes& weighted,
                     Lanes) noexcept {
    const auto count = static_cast<double>(plan.window);
    return weighted.rounded() / (0.5 * count * (count + 1.0));
  }
};

/// Slope of the line of least squares, a row: sums of values times the distance from mid-time over
/// those of its squares.
struct Slope : Trend<Slope> {
  static Lanes value(const Plan& plan, const LongLanes& sum, LongLanes weighted, Lanes) noexcept {
    const auto count = static_cast<double>(plan.window);
    weighted.add(exact_multiple(-0.5 * (count + 1.0), sum));
    return (weighted.value + weighted.error) / (count * (count * count - 1.0) / 12.0);
  }
};

/// That line's value at the oldest row.
struct Intercept : Trend<Intercept> {
  static Lanes value(const Plan& plan, const LongLanes& sum, const LongLanes& weighted,
                     Lanes newest) noexcept {
    const auto count = static_cast<double>(plan.window);
    const Lanes rise = 0.5 * (count - 1.0) * Slope::value(plan, sum, weighted, newest);
    return (sum.value + sum.error) / count - rise;
  }
};

/// The newest value less the line's.
struct Residual : Trend<Residual> {
  static Lanes value(const Plan& plan, LongLanes sum, const LongLanes& weighted,
                     Lanes newest) noexcept {
    const auto count = static_cast<double>(plan.window);
    const Lanes rise = 0.5 * (count - 1.0) * Slope::value(plan, sum, weighted, newest);
    sum.add(exact_multiple(-count, {newest, Lanes{}}));
    return -(sum.value + sum.error) / count - rise;
  }
};

}  // namespace quernbrook::row_kernels::QUERNBROOK_INSTRUCTION_SET
