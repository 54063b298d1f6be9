#pragma once

#include "time/loops/block_loops.hpp"

namespace quernbrook::row_kernels::QUERNBROOK_INSTRUCTION_SET {

/// Product over the window, with what rounding has lost of it (Ogita, Rump and Oishi 2005). The
/// exponent is kept apart, so that nothing overflows on the way to a product that doesn't.
struct Product {
  static constexpr std::size_t arguments = 1;

  struct Base {};
  struct Part {
    LongLanes value{all(1.0), {}};
    Lanes exponent{};  // of `unit`

    void multiply(Part other) noexcept {
      const Lanes product = value.value * other.value.value;
      value = {product, value.error * other.value.value + value.value * other.value.error +
                            lost_in_product(value.value, other.value.value, product)};
      exponent += other.exponent;
      normalize();
    }

    void normalize() noexcept {
      const Lanes size = select(value.value < 0.0, -value.value, value.value);
      const Bits is_large = size > 0x1p256;
      const Bits is_small = size < 0x1p-256;
      const Lanes scale = select(is_large, all(1.0 / unit), select(is_small, all(unit), all(1.0)));
      value = {value.value * scale, value.error * scale};
      exponent += select(is_large, all(1.0), select(is_small, all(-1.0), Lanes{}));
    }
  };
  using Total = Part;

  static void append(const Plan&, const Base&, Part& newer, const Cells<1>& cells,
                     std::size_t) noexcept {
    newer.multiply(part_of(cells.of[0]));
  }

  static void prepend(const Plan&, const Base&, Part& older, const Cells<1>& cells,
                      std::size_t) noexcept {
    older.multiply(part_of(cells.of[0]));
  }

  template <class Others>
  static void common(const Plan&, const Others& others, Base&, Part& older) noexcept {
    others([&](const Total& total, std::size_t, double) { older.multiply(total); });
  }

  static Lanes finish(const Plan&, const Base&, Part older, const Part& newer, const Cells<1>&,
                      std::size_t) noexcept {
    older.multiply(newer);
    Lanes product = older.value.rounded();
    // Three units lead from any normalized value beyond the range of doubles.
    for (int unit_number = 0; unit_number < 3; ++unit_number) {
      const Bits is_large = older.exponent > 0.0;
      const Bits is_small = older.exponent < 0.0;
      product *= select(is_large, all(unit), select(is_small, all(1.0 / unit), all(1.0)));
      older.exponent -= select(is_large, all(1.0), select(is_small, all(-1.0), Lanes{}));
    }
    return product;
  }

 private:
  static constexpr double unit = 0x1p512;

  static Part part_of(Lanes cells) noexcept {
    Part part{{cells, Lanes{}}, Lanes{}};
    part.normalize();
    part.normalize();  // once more, for subnormal and for the largest numbers
    return part;
  }
};

}  // namespace quernbrook::row_kernels::QUERNBROOK_INSTRUCTION_SET
