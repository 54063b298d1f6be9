#pragma once

#include "time/loops/block_loops.hpp"

namespace quernbrook::row_kernels::QUERNBROOK_INSTRUCTION_SET {

/// What statistics of deviations are in a window of 1: the plan's term, which is 0 or NaN, and NaN
/// where a value isn't finite.
template <std::size_t count>
struct LoneValue {
  static constexpr std::size_t arguments = count;

  struct Base {};
  struct Part {};
  using Total = Part;

  static void append(const Plan&, const Base&, Part&, const Cells<count>&, std::size_t) noexcept {}
  static void prepend(const Plan&, const Base&, Part&, const Cells<count>&, std::size_t) noexcept {}
  template <class Others>
  static void common(const Plan&, const Others&, Base&, Part&) noexcept {}

  static Lanes finish(const Plan& plan, const Base&, const Part&, const Part&,
                      const Cells<count>& cells, std::size_t) noexcept {
    Lanes deviation = all(plan.term);
    for (std::size_t a = 0; a < count; ++a) deviation += cells.of[a] - cells.of[a];
    return deviation;
  }
};

}  // namespace quernbrook::row_kernels::QUERNBROOK_INSTRUCTION_SET
