#pragma once

#include "time/loops/block_loops.hpp"

namespace quernbrook::row_kernels::QUERNBROOK_INSTRUCTION_SET {

/// Which of two values comes first, and what comes after all others.
struct Greatest {
  static constexpr double last = -__builtin_huge_val();
  static Bits before(Lanes left, Lanes right) noexcept { return left > right; }
};

struct Least {
  static constexpr double last = __builtin_huge_val();
  static Bits before(Lanes left, Lanes right) noexcept { return left < right; }
};

/// The greatest or least value of the window. A NaN comes before all else.
template <class Order>
struct Extreme {
  static constexpr std::size_t arguments = 1;

  struct Base {};
  struct Part {
    Lanes value = all(Order::last);
  };
  using Total = Part;

  static void append(const Plan&, const Base&, Part& newer, const Cells<1>& cells,
                     std::size_t) noexcept {
    newer.value = first(newer.value, cells.of[0]);
  }

  static void prepend(const Plan&, const Base&, Part& older, const Cells<1>& cells,
                      std::size_t) noexcept {
    older.value = first(older.value, cells.of[0]);
  }

  template <class Others>
  static void common(const Plan&, const Others& others, Base&, Part& older) noexcept {
    others([&](const Total& total, std::size_t, double) {
      older.value = first(older.value, total.value);
    });
  }

  static Lanes finish(const Plan&, const Base&, const Part& older, const Part& newer,
                      const Cells<1>&, std::size_t) noexcept {
    return first(older.value, newer.value);
  }

 private:
  // The inner choice is one instruction, which takes `right` where either is NaN.
  static Lanes first(Lanes left, Lanes right) noexcept {
    return select(left != left, left, select(Order::before(left, right), left, right));
  }
};

using Maximum = Extreme<Greatest>;
using Minimum = Extreme<Least>;

/// Rows since the greatest or least value of the window, the earliest of equal ones. NaN where the
/// window holds a NaN.
template <class Order>
struct ExtremeAge {
  static constexpr std::size_t arguments = 1;

  struct Base {};
  // The time counts from the first row of the part in which the windows end. In a window of nothing
  // but `last`, a new part's time is the right one: the older rows are none only when the newer
  // ones are the whole window.
  struct Part {
    Lanes value = all(Order::last);
    Lanes time{};
  };
  using Total = Part;

  static void append(const Plan&, const Base&, Part& newer, const Cells<1>& cells,
                     std::size_t offset) noexcept {
    const Lanes value = cells.of[0];
    take(Order::before(value, newer.value) | (value != value), value,
         all(static_cast<double>(offset)), newer);
  }

  static void prepend(const Plan& plan, const Base&, Part& older, const Cells<1>& cells,
                      std::size_t offset) noexcept {
    const Lanes value = cells.of[0];
    take(~Order::before(older.value, value) & (older.value == older.value), value,
         all(static_cast<double>(offset) - static_cast<double>(plan.window)), older);
  }

  template <class Others>
  static void common(const Plan&, const Others& others, Base&, Part& older) noexcept {
    bool is_first = true;
    others([&](const Total& total, std::size_t, double start) {
      const Part part{total.value, total.time + start};
      older = is_first ? part : earlier(older, part);
      is_first = false;
    });
  }

  static Lanes finish(const Plan&, const Base&, const Part& older, const Part& newer,
                      const Cells<1>&, std::size_t offset) noexcept {
    const Part extreme = earlier(older, newer);
    const Lanes age = static_cast<double>(offset) - extreme.time;
    return select(extreme.value == extreme.value, age, extreme.value);
  }

 private:
  static void take(Bits condition, Lanes value, Lanes time, Part& part) noexcept {
    part.value = select(condition, value, part.value);
    part.time = select(condition, time, part.time);
  }

  // Of two parts one after the other.
  static Part earlier(Part former, const Part& latter) noexcept {
    take(Order::before(latter.value, former.value) | (latter.value != latter.value), latter.value,
         latter.time, former);
    return former;
  }
};

using MaximumAge = ExtremeAge<Greatest>;
using MinimumAge = ExtremeAge<Least>;

}  // namespace quernbrook::row_kernels::QUERNBROOK_INSTRUCTION_SET
