#pragma once

#include "time/loops/centre.hpp"

namespace quernbrook::row_kernels::QUERNBROOK_INSTRUCTION_SET {

/// Population covariance and the like, for windows of 2 and more.
struct Covariance {
  static constexpr std::size_t arguments = 2;

  struct Base {
    Centre<2> centre;
  };
  struct Part {
    Lanes sum[2]{};
    LongLanes products{};

    void add(Lanes first, Lanes second) noexcept {
      sum[0] += first;
      sum[1] += second;
      products.add(first * second);
    }
  };
  struct Total {
    Centre<2> mean;
    Lanes sum[2];  // of the deviations from the means as they are rounded
    Lanes products;
  };

  static void append(const Plan&, const Base& base, Part& newer, const Cells<2>& cells,
                     std::size_t) noexcept {
    newer.add(cells.of[0] - base.centre.of[0], cells.of[1] - base.centre.of[1]);
  }

  static void prepend(const Plan&, const Base& base, Part& older, const Cells<2>& cells,
                      std::size_t) noexcept {
    older.add(cells.of[0] - base.centre.of[0], cells.of[1] - base.centre.of[1]);
  }

  template <class Rows>
  static Total total(const Rows& rows, std::size_t length) noexcept {
    const Centre<2> mean = mean_of_part<2>(rows, length);
    Part part;
    for (std::size_t row = 0; row < length; ++row) {
      const Cells<2> cells = rows(row);
      part.add(cells.of[0] - mean.of[0], cells.of[1] - mean.of[1]);
    }
    return {mean, {part.sum[0], part.sum[1]}, part.products.value + part.products.error};
  }

  template <class Others>
  static void common(const Plan&, const Others& others, Base& base, Part& older) noexcept {
    base.centre = mean_of_parts<2, Total>(others);
    others([&](const Total& total, std::size_t length, double) {
      const Lanes first = total.mean.of[0] - base.centre.of[0];
      const Lanes second = total.mean.of[1] - base.centre.of[1];
      const Lanes firsts = static_cast<double>(length) * first + total.sum[0];
      older.sum[0] += firsts;
      older.sum[1] += static_cast<double>(length) * second + total.sum[1];
      older.products.add(total.products + first * total.sum[1] + second * firsts);
    });
  }

  static Lanes finish(const Plan& plan, const Base&, const Part& older, const Part& newer,
                      const Cells<2>&, std::size_t) noexcept {
    const Lanes products = (older.products.value + newer.products.value) +
                           (older.products.error + newer.products.error);
    const Lanes first = older.sum[0] + newer.sum[0];
    const Lanes second = older.sum[1] + newer.sum[1];
    return (static_cast<double>(plan.window) * products - first * second) * plan.factor;
  }
};

/// NaN where all values of one argument are equal.
struct Correlation {
  static constexpr std::size_t arguments = 2;

  struct Base {
    Centre<2> centre;
  };
  struct Part {
    Lanes sum[2]{};
    LongLanes squares[2]{};
    LongLanes products{};

    void add(Lanes first, Lanes second) noexcept {
      sum[0] += first;
      sum[1] += second;
      squares[0].add_growing(first * first);
      squares[1].add_growing(second * second);
      products.add(first * second);
    }
  };
  struct Total {
    Centre<2> mean;
    Lanes sum[2];  // of the deviations from the means as they are rounded
    Lanes squares[2];
    Lanes products;
  };

  static void append(const Plan&, const Base& base, Part& newer, const Cells<2>& cells,
                     std::size_t) noexcept {
    newer.add(cells.of[0] - base.centre.of[0], cells.of[1] - base.centre.of[1]);
  }

  static void prepend(const Plan&, const Base& base, Part& older, const Cells<2>& cells,
                      std::size_t) noexcept {
    older.add(cells.of[0] - base.centre.of[0], cells.of[1] - base.centre.of[1]);
  }

  template <class Rows>
  static Total total(const Rows& rows, std::size_t length) noexcept {
    const Centre<2> mean = mean_of_part<2>(rows, length);
    Part part;
    for (std::size_t row = 0; row < length; ++row) {
      const Cells<2> cells = rows(row);
      part.add(cells.of[0] - mean.of[0], cells.of[1] - mean.of[1]);
    }
    return {mean,
            {part.sum[0], part.sum[1]},
            {part.squares[0].value + part.squares[0].error,
             part.squares[1].value + part.squares[1].error},
            part.products.value + part.products.error};
  }

  template <class Others>
  static void common(const Plan&, const Others& others, Base& base, Part& older) noexcept {
    base.centre = mean_of_parts<2, Total>(others);
    others([&](const Total& total, std::size_t length, double) {
      Lanes shift[2];
      Lanes sum[2];
      for (std::size_t a = 0; a < 2; ++a) {
        shift[a] = total.mean.of[a] - base.centre.of[a];
        sum[a] = static_cast<double>(length) * shift[a] + total.sum[a];
        older.sum[a] += sum[a];
        older.squares[a].add_growing(total.squares[a] + shift[a] * (sum[a] + total.sum[a]));
      }
      older.products.add(total.products + shift[0] * total.sum[1] + shift[1] * sum[0]);
    });
  }

  static Lanes finish(const Plan& plan, const Base&, Part older, const Part& newer, const Cells<2>&,
                      std::size_t) noexcept {
    Lanes sum[2];
    Lanes mean[2];
    Lanes spread[2];
    for (std::size_t a = 0; a < 2; ++a) {
      sum[a] = older.sum[a] + newer.sum[a];
      mean[a] = sum[a] * (1.0 / static_cast<double>(plan.window));
      older.squares[a].add(newer.squares[a]);
      spread[a] = older.squares[a].less(sum[a] * mean[a]);
    }
    older.products.add(newer.products);
    const Lanes joint = older.products.less(sum[0] * mean[1]);
    const Lanes product = spread[0] * spread[1];
    Lanes root = square_root(product);
    // Where the product overflows or loses digits, at the price of another root.
    const Bits is_extreme = (product < 0x1p-960) | (product > 0x1p1000);
    if (any(is_extreme)) {
      root = select(is_extreme, square_root(spread[0]) * square_root(spread[1]), root);
    }
    const Lanes correlation = joint / root;
    const Lanes at_most_one = select(correlation > 1.0, all(1.0), correlation);
    return select(at_most_one < -1.0, all(-1.0), at_most_one);
  }
};

}  // namespace quernbrook::row_kernels::QUERNBROOK_INSTRUCTION_SET
