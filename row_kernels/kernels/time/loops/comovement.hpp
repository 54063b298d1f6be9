#pragma once

#include "time/loops/centre.hpp"

namespace quernbrook::row_kernels::QUERNBROOK_INSTRUCTION_SET {

struct SumsOfProducts {
  Lanes sum[2]{};
  LongLanes products{};

  void add(const Cells<2>& cells, const Centre<2>& centre) noexcept {
    const Lanes first = cells.of[0] - centre.of[0];
    const Lanes second = cells.of[1] - centre.of[1];
    sum[0] += first;
    sum[1] += second;
    products.add_growing(first * second);
  }

  void add_moved(const SumsOfProducts& others, const Centre<2>& shift, double length) noexcept {
    const Lanes firsts = length * shift.of[0] + others.sum[0];
    sum[0] += firsts;
    sum[1] += length * shift.of[1] + others.sum[1];
    products.add(others.products.sum() + shift.of[0] * others.sum[1] + shift.of[1] * firsts);
  }
};

/// For windows of 2 and more.
struct Covariance : Centred<2, SumsOfProducts> {
  static Lanes finish(const Plan& plan, const Base&, const Part& older, const Part& newer,
                      const Cells<2>&, std::size_t) noexcept {
    const Lanes first = older.sum[0] + newer.sum[0];
    const Lanes second = older.sum[1] + newer.sum[1];
    const Lanes products = sum_of(older.products, newer.products);
    return (static_cast<double>(plan.window) * products - first * second) * plan.factor;
  }
};

/// Of two arguments that move together the correlation depends on deviations, means and shifts in
/// second order only, as long as all three sums take the same; it depends on their products in
/// first order. So those of sums and shifts are not rounded, and those of a row once.
struct SumsOfSquaresAndProducts {
  Lanes sum[2]{};
  LongLanes squares[2]{};
  LongLanes products{};

  void add(const Cells<2>& cells, const Centre<2>& centre) noexcept {
    const Lanes first = cells.of[0] - centre.of[0];
    const Lanes second = cells.of[1] - centre.of[1];
    sum[0] += first;
    sum[1] += second;
    squares[0].add_growing(first * first);
    squares[1].add_growing(second * second);
    products.add_growing(first * second);
  }

  void add_moved(const SumsOfSquaresAndProducts& others, const Centre<2>& shift,
                 double length) noexcept {
    Lanes double_sum[2];
    for (std::size_t a = 0; a < 2; ++a) {
      const Lanes moved = length * shift.of[a] + others.sum[a];
      double_sum[a] = moved + others.sum[a];
      sum[a] += moved;
      squares[a].add_growing(others.squares[a]);
      squares[a].add_growing(product_of(shift.of[a], double_sum[a]));
    }
    products.add_growing(others.products);
    products.add_growing(product_of(0.5 * shift.of[0], double_sum[1]));
    products.add_growing(product_of(0.5 * shift.of[1], double_sum[0]));
  }
};

/// For windows of 3 and more; NaN where all values of one argument are equal, or so nearly that the
/// squares of their deviations are zero.
struct Correlation : Centred<2, SumsOfSquaresAndProducts> {
  static Lanes finish(const Plan& plan, const Base&, Part older, const Part& newer, const Cells<2>&,
                      std::size_t) noexcept {
    // Times the root of the window's length, so that their products are those of sums with means.
    Lanes mean[2];
    for (std::size_t a = 0; a < 2; ++a) {
      mean[a] = (older.sum[a] + newer.sum[a]) * plan.factor;
      older.squares[a].add(newer.squares[a]);
      older.squares[a].add_growing(product_of(-mean[a], mean[a]));
    }
    older.products.add(newer.products);
    older.products.add_growing(product_of(-mean[0], mean[1]));
    const Lanes correlation = ratio(older.products, older.squares[0], older.squares[1]);
    const Lanes at_most_one = select(correlation > 1.0, all(1.0), correlation);
    return select(at_most_one < -1.0, all(-1.0), at_most_one);
  }

 private:
  /// `joint` over the root of the product of the other two, rounded once: what the rounded root,
  /// its reciprocal and their products lack is made good in first order.
  static Lanes ratio(const LongLanes& joint, const LongLanes& first,
                     const LongLanes& second) noexcept {
    const Lanes product = first.value * second.value;
    const Lanes root = square_root(product);
    const Lanes reciprocal = 1.0 / root;
    const Lanes product_lacks = lost_in_product(first.value, second.value, product) +
                                (first.value * second.error + first.error * second.value);
    const Lanes square_lacks = product_lacks - lost_in_product(root, root, product);
    const Lanes reciprocal_lacks = -lost_in_product(root, reciprocal, all(1.0));
    const Lanes rough = joint.value * reciprocal;
    const Lanes lacking = reciprocal_lacks - 0.5 * square_lacks * reciprocal * reciprocal;
    const Lanes ratio = rough + (lost_in_product(joint.value, reciprocal, rough) +
                                 joint.error * reciprocal + rough * lacking);
    // Where the product overflows or loses digits, at the price of more roots.
    const Bits is_extreme = (product < 0x1p-960) | (product > 0x1p1000);
    if (!any(is_extreme)) return ratio;
    const Lanes roots = square_root(first.sum()) * square_root(second.sum());
    const Lanes by_roots = select(roots > 0.0, joint.sum() / roots, all(__builtin_nan("")));
    return select(is_extreme, by_roots, ratio);
  }
};

}  // namespace quernbrook::row_kernels::QUERNBROOK_INSTRUCTION_SET
