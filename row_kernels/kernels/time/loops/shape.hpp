#pragma once

#include "time/loops/centre.hpp"

namespace quernbrook::row_kernels::QUERNBROOK_INSTRUCTION_SET {

/// Skewness, from sums of the first three powers of the deviations, for windows of 2 and more.
struct Skewness {
  static constexpr std::size_t arguments = 1;

  struct Base {
    Centre<1> centre;
  };
  struct Part {
    Lanes sum{};
    LongLanes squares{};
    LongLanes cubes{};

    void add(Lanes deviation) noexcept {
      const Lanes square = deviation * deviation;
      sum += deviation;
      squares.add_growing(square);
      cubes.add(square * deviation);
    }
  };
  struct Total {
    Centre<1> mean;
    Lanes sum;  // of the deviations from the mean as it is rounded
    Lanes squares;
    Lanes cubes;
  };

  static void append(const Plan&, const Base& base, Part& newer, const Cells<1>& cells,
                     std::size_t) noexcept {
    newer.add(cells.of[0] - base.centre.of[0]);
  }

  static void prepend(const Plan&, const Base& base, Part& older, const Cells<1>& cells,
                      std::size_t) noexcept {
    older.add(cells.of[0] - base.centre.of[0]);
  }

  template <class Rows>
  static Total total(const Rows& rows, std::size_t length) noexcept {
    const Centre<1> mean = mean_of_part<1>(rows, length);
    Part part;
    for (std::size_t row = 0; row < length; ++row) part.add(rows(row).of[0] - mean.of[0]);
    return {mean, part.sum, part.squares.value + part.squares.error,
            part.cubes.value + part.cubes.error};
  }

  template <class Others>
  static void common(const Plan&, const Others& others, Base& base, Part& older) noexcept {
    base.centre = mean_of_parts<1, Total>(others);
    others([&](const Total& total, std::size_t length, double) {
      const Lanes shift = total.mean.of[0] - base.centre.of[0];
      const Lanes shifts = static_cast<double>(length) * shift;
      older.sum += shifts + total.sum;
      older.squares.add_growing(total.squares + shift * (shifts + 2.0 * total.sum));
      older.cubes.add(total.cubes +
                      shift * (3.0 * total.squares + shift * (shifts + 3.0 * total.sum)));
    });
  }

  static Lanes finish(const Plan& plan, const Base&, const Part& older, const Part& newer,
                      const Cells<1>&, std::size_t) noexcept {
    const Lanes sum = older.sum + newer.sum;
    const Lanes mean = sum / static_cast<double>(plan.window);
    const Lanes squares =
        (older.squares.value + newer.squares.value) + (older.squares.error + newer.squares.error);
    const Lanes cubes =
        (older.cubes.value + newer.cubes.value) + (older.cubes.error + newer.cubes.error);
    const Lanes second = squares - sum * mean;
    const Lanes third = cubes - mean * (3.0 * squares - 2.0 * sum * mean);
    return plan.factor * (third / second / square_root(second));
  }
};

/// Kurtosis, from sums of the first four powers of the deviations, for windows of 2 and more.
struct Kurtosis {
  static constexpr std::size_t arguments = 1;

  using Base = Skewness::Base;
  struct Part {
    Lanes sum{};
    LongLanes squares{};
    LongLanes cubes{};
    LongLanes fourths{};

    void add(Lanes deviation) noexcept {
      const Lanes square = deviation * deviation;
      sum += deviation;
      squares.add_growing(square);
      cubes.add(square * deviation);
      fourths.add_growing(square * square);
    }
  };
  struct Total {
    Centre<1> mean;
    Lanes sum;  // of the deviations from the mean as it is rounded
    Lanes squares;
    Lanes cubes;
    Lanes fourths;
  };

  static void append(const Plan&, const Base& base, Part& newer, const Cells<1>& cells,
                     std::size_t) noexcept {
    newer.add(cells.of[0] - base.centre.of[0]);
  }

  static void prepend(const Plan&, const Base& base, Part& older, const Cells<1>& cells,
                      std::size_t) noexcept {
    older.add(cells.of[0] - base.centre.of[0]);
  }

  template <class Rows>
  static Total total(const Rows& rows, std::size_t length) noexcept {
    const Centre<1> mean = mean_of_part<1>(rows, length);
    Part part;
    for (std::size_t row = 0; row < length; ++row) part.add(rows(row).of[0] - mean.of[0]);
    return {mean, part.sum, part.squares.value + part.squares.error,
            part.cubes.value + part.cubes.error, part.fourths.value + part.fourths.error};
  }

  template <class Others>
  static void common(const Plan&, const Others& others, Base& base, Part& older) noexcept {
    base.centre = mean_of_parts<1, Total>(others);
    others([&](const Total& total, std::size_t length, double) {
      const Lanes shift = total.mean.of[0] - base.centre.of[0];
      const Lanes shifts = static_cast<double>(length) * shift;
      older.sum += shifts + total.sum;
      older.squares.add_growing(total.squares + shift * (shifts + 2.0 * total.sum));
      older.cubes.add(total.cubes +
                      shift * (3.0 * total.squares + shift * (shifts + 3.0 * total.sum)));
      older.fourths.add_growing(
          total.fourths +
          shift * (4.0 * total.cubes +
                   shift * (6.0 * total.squares + shift * (shifts + 4.0 * total.sum))));
    });
  }

  static Lanes finish(const Plan& plan, const Base&, const Part& older, const Part& newer,
                      const Cells<1>&, std::size_t) noexcept {
    const Lanes sum = older.sum + newer.sum;
    const Lanes mean = sum / static_cast<double>(plan.window);
    const Lanes squares =
        (older.squares.value + newer.squares.value) + (older.squares.error + newer.squares.error);
    const Lanes cubes =
        (older.cubes.value + newer.cubes.value) + (older.cubes.error + newer.cubes.error);
    const Lanes fourths =
        (older.fourths.value + newer.fourths.value) + (older.fourths.error + newer.fourths.error);
    const Lanes second = squares - sum * mean;
    const Lanes fourth = fourths - mean * (4.0 * cubes - mean * (6.0 * squares - 3.0 * sum * mean));
    return plan.factor * (fourth / second / second) + plan.term;
  }
};

}  // namespace quernbrook::row_kernels::QUERNBROOK_INSTRUCTION_SET
