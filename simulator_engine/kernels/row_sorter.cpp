#include "kernels/row_sorter.hpp"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <limits>

// A row is sorted by keys that hold a coarse, monotone image of the value above the column number.
// Two or four passes of a stable radix sort order the images, and the few neighbours that share
// one are settled by their values. Unlike a comparison sort this hardly mispredicts a branch, and
// unlike a vectorised one it is as fast on every processor.

namespace quernbrook::kernels {
namespace {

constexpr double infinity = std::numeric_limits<double>::infinity();

// Registers of any x86-64. Spelt out, as compilers leave these loops scalar.
using Pair [[gnu::vector_size(16)]] = double;
using PairMask [[gnu::vector_size(16)]] = std::int64_t;
using Quad [[gnu::vector_size(16)]] = std::uint32_t;

template <class Register, class Cell>
inline Register load(const Cell* cells) noexcept {
  Register values;
  std::memcpy(&values, cells, sizeof values);
  return values;
}

// Some lanes of two registers, numbered through both: GCC before 12 lacks Clang's built-in.
template <int... lanes>
inline Quad shuffle(Quad left, Quad right) noexcept {
#ifdef __clang__
  return __builtin_shufflevector(left, right, lanes...);
#else
  return __builtin_shuffle(left, right, Quad{lanes...});
#endif
}

// The lane that holds the low bits of the first double of a Pair.
constexpr int low_lane = std::endian::native == std::endian::little ? 0 : 1;

// Sorts by the digits from `first_shift` up. The sorted keys end in `keys`: passes come in twos.
template <int first_shift, int digit_bits, int passes, class Key>
void radix_sort(Key* keys, Key* spare, std::size_t count, std::uint32_t* counters) noexcept {
  static_assert(passes % 2 == 0);
  constexpr std::size_t digits = std::size_t{1} << digit_bits;
  const auto digit = [](Key key, int pass) {
    return static_cast<std::size_t>(key >> (first_shift + pass * digit_bits)) & (digits - 1);
  };
  std::fill_n(counters, passes * digits, 0u);
  for (std::size_t place = 0; place < count; ++place) {
    for (int pass = 0; pass < passes; ++pass) {
      ++counters[static_cast<std::size_t>(pass) * digits + digit(keys[place], pass)];
    }
  }
  // Turns the counters of each pass into the places where the digits begin, four at a time.
  Quad begin[passes] = {};
  for (std::size_t value = 0; value < digits; value += 4) {
    for (int pass = 0; pass < passes; ++pass) {
      std::uint32_t* counter = counters + static_cast<std::size_t>(pass) * digits + value;
      const Quad sizes = load<Quad>(counter);
      Quad ends = sizes + shuffle<0, 4, 5, 6>(Quad{}, sizes);
      ends += shuffle<0, 1, 4, 5>(Quad{}, ends);
      const Quad begins = begin[pass] + ends - sizes;
      std::memcpy(counter, &begins, sizeof begins);
      begin[pass] += shuffle<3, 3, 3, 3>(ends, ends);
    }
  }
  for (int pass = 0; pass < passes; ++pass) {
    for (std::size_t place = 0; place < count; ++place) {
      spare[counters[digit(keys[place], pass)]++] = keys[place];
    }
    std::swap(keys, spare);
    counters += digits;
  }
}

// The bits of a finite value or an infinity as an integer of the same order.
inline std::uint64_t ordered_bits(double value) noexcept {
  constexpr std::uint64_t sign = std::uint64_t{1} << 63;
  const auto bits = std::bit_cast<std::uint64_t>(value + 0.0);  // negative zero equals zero
  return (bits & sign) != 0 ? ~bits : bits | sign;
}

}  // namespace

RowSorter::RowSorter(std::size_t columns)
    : columns_(columns), keys_(columns), spare_keys_(columns) {}

RowSorter::Census RowSorter::take_census(const double* cells, std::size_t columns) noexcept {
  Pair least[2] = {{infinity, infinity}, {infinity, infinity}};
  Pair greatest[2] = {-least[0], -least[1]};
  PairMask counts[2] = {};
  std::size_t column = 0;
  for (; column + 4 <= columns; column += 4) {
    for (std::size_t half = 0; half < 2; ++half) {
      const Pair values = load<Pair>(cells + column + 2 * half);
      counts[half] -= values == values;  // true is -1
      // NaN is neither, and the old value stays.
      least[half] = values < least[half] ? values : least[half];
      greatest[half] = values > greatest[half] ? values : greatest[half];
    }
  }
  Census census{};
  census.least = std::min({least[0][0], least[0][1], least[1][0], least[1][1]});
  census.greatest = std::max({greatest[0][0], greatest[0][1], greatest[1][0], greatest[1][1]});
  census.count =
      static_cast<std::size_t>(counts[0][0] + counts[0][1] + counts[1][0] + counts[1][1]);
  for (; column < columns; ++column) {
    const double value = cells[column];
    if (std::isnan(value)) continue;
    ++census.count;
    census.least = std::min(census.least, value);
    census.greatest = std::max(census.greatest, value);
  }
  census.finite = census.count;
  if (census.count == 0 || (census.least != -infinity && census.greatest != infinity))
    return census;

  census.least = infinity;
  census.greatest = -infinity;
  census.finite = 0;
  for (column = 0; column < columns; ++column) {
    const double value = cells[column];
    if (std::isfinite(value)) {
      ++census.finite;
      census.least = std::min(census.least, value);
      census.greatest = std::max(census.greatest, value);
    } else if (value == infinity) {
      census.has_positive_infinity = true;
    } else if (value == -infinity) {
      ++census.negative_infinities;
    }
  }
  return census;
}

bool RowSorter::sort(const double* cells, const double* target, bool keeps_ties) {
  keeps_ties_ = keeps_ties;
  has_ties_ = false;
  census_ = take_census(cells, columns_);
  Outcome outcome = Outcome::crowded;
  if (rows_by_bits_ > 0) {
    --rows_by_bits_;
  } else {
    // More bits of the image meet fewer neighbours, but have more digits to count.
    if (columns_ <= 256) {
      outcome = sort_by_value<8, 8>(cells, target);
    } else if (columns_ <= 1024) {
      outcome = sort_by_value<10, 9>(cells, target);
    } else if (columns_ <= 4096) {
      outcome = sort_by_value<12, 10>(cells, target);
    } else if (columns_ <= 16384) {
      outcome = sort_by_value<14, 9>(cells, target);
    }
    // The next rows are likely to be as uneven.
    if (outcome == Outcome::crowded) rows_by_bits_ = 31;
  }
  if (outcome == Outcome::crowded) outcome = sort_by_bits(cells);
  if (outcome == Outcome::crowded) outcome = sort_by_comparison(cells);
  return outcome == Outcome::sorted && !has_ties_;
}

// The image is linear in the value: best where values spread evenly, whatever their size.
template <int column_bits, int digit_bits>
RowSorter::Outcome RowSorter::sort_by_value(const double* cells, const double* target) {
  static_assert(column_bits + 2 * digit_bits <= 32);
  // The image of positive infinity and NaN; the finite values keep within 1 and last - 2.
  constexpr double last = (1u << (2 * digit_bits)) - 1;
  const double least = census_.least;
  const double scale = census_.finite < 2 ? 1.0 : (last - 3.0) / (census_.greatest - least);
  if (!(scale > 0.0 && scale < infinity)) return Outcome::crowded;

  // Each step is monotone, rounding included. Adding 2^52 leaves an integer in the low bits.
  const Pair lasts = {last, last};
  const auto image = [=](Pair values) {
    Pair images = (values - least) * scale + 1.0;
    images = images < lasts ? images : lasts;
    images = images > 0.0 ? images : Pair{};
    return reinterpret_cast<Quad>(images + 0x1p52);
  };
  Quad numbers = {0, 1, 2, 3};
  std::size_t column = 0;
  for (; column + 4 <= columns_; column += 4) {
    if (column % 8 == 0) __builtin_prefetch(target + column, 1);
    const Quad images = shuffle<low_lane, low_lane + 2, low_lane + 4, low_lane + 6>(
        image(load<Pair>(cells + column)), image(load<Pair>(cells + column + 2)));
    const Quad keys = images << column_bits | numbers;
    std::memcpy(keys_.data() + column, &keys, sizeof keys);
    numbers += 4;
  }
  for (; column < columns_; ++column) {
    const std::uint32_t key_image = image(Pair{cells[column], 0.0})[low_lane];
    keys_[column] = key_image << column_bits | static_cast<std::uint32_t>(column);
  }
  counters_.resize(std::size_t{2} << digit_bits);
  radix_sort<column_bits, digit_bits, 2>(keys_.data(), spare_keys_.data(), columns_,
                                         counters_.data());
  column_mask_ = (1u << column_bits) - 1;
  return settle_neighbours(keys_.data(), column_mask_, cells, columns_ / 4 + 16);
}

// The image is the leading bits of the value, which is near to logarithmic: for values that differ
// in size, such as volumes, and for very wide rows.
RowSorter::Outcome RowSorter::sort_by_bits(const double* cells) {
  constexpr std::uint64_t last = std::numeric_limits<std::uint32_t>::max();
  constexpr std::uint64_t column_mask = last;
  const std::uint64_t least = ordered_bits(census_.least);
  const std::uint64_t range = census_.finite == 0 ? 0 : ordered_bits(census_.greatest) - least;
  const int shift = std::max(0, static_cast<int>(std::bit_width(range)) - 31);
  wide_keys_.resize(columns_);
  spare_wide_keys_.resize(columns_);
  for (std::size_t column = 0; column < columns_; ++column) {
    const double value = cells[column];
    std::uint64_t image = last;
    if (std::isfinite(value)) {
      image = ((ordered_bits(value) - least) >> shift) + 1;
    } else if (value == -infinity) {
      image = 0;
    }
    wide_keys_[column] = image << 32 | column;
  }
  counters_.resize(4 * 256);
  radix_sort<32, 8, 4>(wide_keys_.data(), spare_wide_keys_.data(), columns_, counters_.data());
  // Differences of prices in cents are near to equal by the dozen; other sorts take far longer.
  const Outcome outcome =
      settle_neighbours(wide_keys_.data(), column_mask, cells, 4 * columns_ + 16);
  if (outcome == Outcome::sorted) {
    for (std::size_t place = 0; place < columns_; ++place) {
      keys_[place] = static_cast<std::uint32_t>(wide_keys_[place]);
    }
    column_mask_ = std::numeric_limits<std::uint32_t>::max();
  }
  return outcome;
}

// For the rest, such as values close together with one far away.
RowSorter::Outcome RowSorter::sort_by_comparison(const double* cells) {
  // Another thread may write into the cells meanwhile, and a sort whose values change can leave its
  // bounds.
  values_.resize(columns_);
  for (std::size_t column = 0; column < columns_; ++column) {
    values_[column] = std::isnan(cells[column]) ? infinity : cells[column];
    keys_[column] = static_cast<std::uint32_t>(column);
  }
  column_mask_ = std::numeric_limits<std::uint32_t>::max();
  std::sort(keys_.begin(), keys_.end(), [&](std::uint32_t left, std::uint32_t right) {
    return values_[left] < values_[right] || (values_[left] == values_[right] && left < right);
  });
  const auto begin = keys_.begin() + static_cast<std::ptrdiff_t>(census_.negative_infinities);
  const auto end = begin + static_cast<std::ptrdiff_t>(census_.finite);
  const auto tie = std::adjacent_find(begin, end, [&](std::uint32_t left, std::uint32_t right) {
    return values_[left] == values_[right];
  });
  has_ties_ = tie != end;
  return has_ties_ && !keeps_ties_ ? Outcome::tied : Outcome::sorted;
}

// Sorts the finite values that share an image by insertion, unless they are too many for that.
template <class Key>
RowSorter::Outcome RowSorter::settle_neighbours(Key* keys, Key column_mask, const double* cells,
                                                std::size_t comparisons) noexcept {
  const auto value = [=](Key key) { return cells[key & column_mask]; };
  const auto share_image = [=](Key left, Key right) { return (left ^ right) <= column_mask; };
  constexpr std::size_t block = 32;
  std::size_t place = census_.negative_infinities;
  const std::size_t end = place + census_.finite;
  while (place + 1 < end) {
    if (place + block < end) {
      std::uint32_t any = 0;
      for (std::size_t step = 0; step < block; ++step) {
        any |= std::uint32_t{share_image(keys[place + step], keys[place + step + 1])};
      }
      if (any == 0) {
        place += block;
        continue;
      }
    }
    while (place + 1 < end && !share_image(keys[place], keys[place + 1])) ++place;
    std::size_t group_end = place + 1;
    for (; group_end < end && share_image(keys[place], keys[group_end]); ++group_end) {
      const Key key = keys[group_end];
      std::size_t hole = group_end;
      for (; hole > place && value(keys[hole - 1]) >= value(key); --hole) {
        if (value(keys[hole - 1]) == value(key)) {
          if (!keeps_ties_) return Outcome::tied;
          has_ties_ = true;
          break;
        }
        if (--comparisons == 0) return Outcome::crowded;
        keys[hole] = keys[hole - 1];
      }
      keys[hole] = key;
    }
    place = group_end;
  }
  return Outcome::sorted;
}

}  // namespace quernbrook::kernels
