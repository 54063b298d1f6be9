#include "rows/sums.hpp"

#include <cstring>

#include "instruction_sets.hpp"
#include "nan.hpp"

namespace quernbrook::row_kernels {
namespace {

constexpr std::size_t lane_count = 8;
constexpr std::size_t block = 128;
constexpr std::size_t piece = 8192;

// Spelt out, as compilers keep eight sums side by side in scalar registers.
using Lanes [[gnu::vector_size(64)]] = double;

QUERNBROOK_WIDEST_REGISTERS double sum_of_block(const double* values, std::size_t count) noexcept {
  Lanes sums;
  std::memcpy(&sums, values, sizeof sums);
  std::size_t place = lane_count;
  for (; place + lane_count <= count; place += lane_count) {
    Lanes next;
    std::memcpy(&next, values + place, sizeof next);
    sums += next;
  }
  double sum =
      ((sums[0] + sums[1]) + (sums[2] + sums[3])) + ((sums[4] + sums[5]) + (sums[6] + sums[7]));
  for (; place < count; ++place) sum += values[place];
  return sum;
}

double sum_of_blocks(const double* values, std::size_t count) noexcept {
  if (count <= block) return sum_of_block(values, count);
  const std::size_t half = count / 2 / lane_count * lane_count;
  return sum_of_blocks(values, half) + sum_of_blocks(values + half, count - half);
}

}  // namespace

double pairwise_sum(const double* values, std::size_t count) noexcept {
  double sum = 0.0;
  for (; count > piece; count -= piece, values += piece) sum += sum_of_blocks(values, piece);
  if (count >= lane_count) return sum + sum_of_blocks(values, count);
  double rest = 0.0;
  for (std::size_t place = 0; place < count; ++place) rest += values[place];
  return sum + rest;
}

std::size_t take_numbers(const double* cells, const double* values, double* target,
                         std::size_t count) noexcept {
  std::size_t taken = 0;
  for (std::size_t place = 0; place < count; ++place) {
    target[taken] = values[place];
    taken += is_nan(cells[place]) ? 0 : 1;
  }
  return taken;
}

}  // namespace quernbrook::row_kernels
