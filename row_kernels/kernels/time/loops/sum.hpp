#pragma once

#include "time/loops/block_loops.hpp"

namespace quernbrook::row_kernels::QUERNBROOK_INSTRUCTION_SET {

/// Sum over the window, in twice the working precision.
struct Sum {
  static constexpr std::size_t arguments = 1;

  struct Base {};
  struct Part {
    LongLanes sum{};
  };
  using Total = Part;

  static void append(const Plan&, const Base&, Part& newer, const Cells<1>& cells,
                     std::size_t) noexcept {
    newer.sum.add(cells.of[0]);
  }

  static void prepend(const Plan&, const Base&, Part& older, const Cells<1>& cells,
                      std::size_t) noexcept {
    older.sum.add(cells.of[0]);
  }

  template <class Others>
  static void common(const Plan&, const Others& others, Base&, Part& older) noexcept {
    others([&](const Total& total, std::size_t, double) { older.sum.add(total.sum); });
  }

  static Lanes finish(const Plan&, const Base&, const Part& older, const Part& newer,
                      const Cells<1>&, std::size_t) noexcept {
    return rounded_sum(older.sum, newer.sum);
  }
};

struct Mean : Sum {
  static Lanes finish(const Plan& plan, const Base& base, const Part& older, const Part& newer,
                      const Cells<1>& cells, std::size_t offset) noexcept {
    return Sum::finish(plan, base, older, newer, cells, offset) / static_cast<double>(plan.window);
  }
};

}  // namespace quernbrook::row_kernels::QUERNBROOK_INSTRUCTION_SET
