#pragma once

#include "time/loops/block_loops.hpp"

namespace quernbrook::row_kernels::QUERNBROOK_INSTRUCTION_SET {

/// Mean with weights that fall with age in a constant ratio. Rows are weighted by their time from
/// the first row of the part in which the windows end, and the sum by the newest row's:
///
///     weights[window + time]                          ratio ^ -time
///     weights[window + part_length + offset]          ratio ^ offset / sum of the weights by age
struct ExponentialMean {
  static constexpr std::size_t arguments = 1;

  struct Base {};
  struct Part {
    LongLanes sum{};
  };
  using Total = Part;

  static void append(const Plan& plan, const Base&, Part& newer, const Cells<1>& cells,
                     std::size_t offset) noexcept {
    newer.sum.add(plan.weights[plan.window + offset] * cells.of[0]);
  }

  static void prepend(const Plan& plan, const Base&, Part& older, const Cells<1>& cells,
                      std::size_t offset) noexcept {
    older.sum.add(plan.weights[offset] * cells.of[0]);
  }

  template <class Others>
  static void common(const Plan& plan, const Others& others, Base&, Part& older) noexcept {
    others([&](const Total& total, std::size_t, double start) {
      const double weight =
          plan.weights[static_cast<std::size_t>(static_cast<double>(plan.window) + start)];
      older.sum.add({weight * total.sum.value, weight * total.sum.error});
    });
  }

  static Lanes finish(const Plan& plan, const Base&, const Part& older, const Part& newer,
                      const Cells<1>&, std::size_t offset) noexcept {
    return plan.weights[plan.window + plan.part_length + offset] *
           rounded_sum(older.sum, newer.sum);
  }
};

}  // namespace quernbrook::row_kernels::QUERNBROOK_INSTRUCTION_SET
