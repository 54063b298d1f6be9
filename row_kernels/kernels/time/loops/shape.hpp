#pragma once

#include "time/loops/centre.hpp"

namespace quernbrook::row_kernels::QUERNBROOK_INSTRUCTION_SET {

struct SumsOfCubes {
  Lanes sum{};
  LongLanes squares{};
  LongLanes cubes{};

  void add(const Cells<1>& cells, const Centre<1>& centre) noexcept {
    const Lanes deviation = cells.of[0] - centre.of[0];
    const Lanes square = deviation * deviation;
    sum += deviation;
    squares.add_growing(square);
    cubes.add(square * deviation);
  }

  void add_moved(const SumsOfCubes& others, const Centre<1>& shift, double length) noexcept {
    const Lanes by = shift.of[0];
    const Lanes all_squares = others.squares.sum();
    const Lanes shifts = length * by;
    sum += shifts + others.sum;
    squares.add_growing(all_squares + by * (shifts + 2.0 * others.sum));
    cubes.add(others.cubes.sum() + by * (3.0 * all_squares + by * (shifts + 3.0 * others.sum)));
  }
};

/// Skewness, for windows of 2 and more.
struct Skewness : Centred<1, SumsOfCubes> {
  static Lanes finish(const Plan& plan, const Base&, const Part& older, const Part& newer,
                      const Cells<1>&, std::size_t) noexcept {
    const Lanes sum = older.sum + newer.sum;
    const Lanes mean = sum / static_cast<double>(plan.window);
    const Lanes squares = sum_of(older.squares, newer.squares);
    const Lanes cubes = sum_of(older.cubes, newer.cubes);
    const Lanes second = squares - sum * mean;
    const Lanes third = cubes - mean * (3.0 * squares - 2.0 * sum * mean);
    return plan.factor * (third / second / square_root(second));
  }
};

struct SumsOfFourths {
  SumsOfCubes lower{};
  LongLanes fourths{};

  void add(const Cells<1>& cells, const Centre<1>& centre) noexcept {
    lower.add(cells, centre);
    const Lanes deviation = cells.of[0] - centre.of[0];
    const Lanes square = deviation * deviation;
    fourths.add_growing(square * square);
  }

  void add_moved(const SumsOfFourths& others, const Centre<1>& shift, double length) noexcept {
    const Lanes by = shift.of[0];
    lower.add_moved(others.lower, shift, length);
    fourths.add_growing(
        others.fourths.sum() +
        by * (4.0 * others.lower.cubes.sum() + by * (6.0 * others.lower.squares.sum() +
                                                     by * (length * by + 4.0 * others.lower.sum))));
  }
};

/// Kurtosis, for windows of 2 and more.
struct Kurtosis : Centred<1, SumsOfFourths> {
  static Lanes finish(const Plan& plan, const Base&, const Part& older, const Part& newer,
                      const Cells<1>&, std::size_t) noexcept {
    const Lanes sum = older.lower.sum + newer.lower.sum;
    const Lanes mean = sum / static_cast<double>(plan.window);
    const Lanes squares = sum_of(older.lower.squares, newer.lower.squares);
    const Lanes cubes = sum_of(older.lower.cubes, newer.lower.cubes);
    const Lanes fourths = sum_of(older.fourths, newer.fourths);
    const Lanes second = squares - sum * mean;
    const Lanes fourth = fourths - mean * (4.0 * cubes - mean * (6.0 * squares - 3.0 * sum * mean));
    return plan.factor * (fourth / second / second) + plan.term;
  }
};

}  // namespace quernbrook::row_kernels::QUERNBROOK_INSTRUCTION_SET
