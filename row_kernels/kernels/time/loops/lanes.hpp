#pragma once

// Arithmetic on neighbouring columns in one register of the widest instruction set that this
// translation unit is compiled for. QUERNBROOK_INSTRUCTION_SET names that set and the namespace, so
// that no function compiled for one is linked where another is meant. For the same reason nothing
// here calls a function of the standard library that isn't inlined for certain.

#include <cstddef>
#include <cstdint>
#if defined(__SSE2__)
#include <immintrin.h>
#endif

#include "time/plan.hpp"

namespace quernbrook::row_kernels::QUERNBROOK_INSTRUCTION_SET {

#if defined(__AVX512F__)
inline constexpr std::size_t lane_count = 8;
#elif defined(__AVX2__)
inline constexpr std::size_t lane_count = 4;
#else
inline constexpr std::size_t lane_count = 2;
#endif

using Lanes [[gnu::vector_size(8 * lane_count)]] = double;
using Bits [[gnu::vector_size(8 * lane_count)]] = std::int64_t;

inline Lanes load(const double* cells) noexcept {
  Lanes lanes;
  __builtin_memcpy(&lanes, cells, sizeof lanes);
  return lanes;
}

inline void store(double* cells, Lanes lanes) noexcept {
  __builtin_memcpy(cells, &lanes, sizeof lanes);
}

/// Fetches the cells of the next tile, to read or to write them: the same columns of other rows lie
/// too far apart for the processor to foresee.
template <int is_written>
inline void fetch_ahead(const double* cells) noexcept {
  __builtin_prefetch(cells + 2 * tile_columns - 1, is_written);
}

inline Lanes all(double value) noexcept { return Lanes{} + value; }

/// `chosen` where the condition holds, the other elsewhere.
inline Lanes select(Bits condition, Lanes chosen, Lanes other) noexcept {
  return condition ? chosen : other;
}

inline Lanes square_root(Lanes lanes) noexcept {
#if defined(__AVX512F__)
  return _mm512_maskz_sqrt_pd(0xff, lanes);  // the plain one warns in GCC 12
#elif defined(__AVX2__)
  return _mm256_sqrt_pd(lanes);
#elif defined(__SSE2__)
  return _mm_sqrt_pd(lanes);
#else
  for (std::size_t lane = 0; lane < lane_count; ++lane) lanes[lane] = __builtin_sqrt(lanes[lane]);
  return lanes;
#endif
}

/// Of finite numbers: neither NaN nor infinite.
inline Bits is_finite(Lanes lanes) noexcept { return lanes - lanes == Lanes{}; }

inline bool any(Bits condition) noexcept {
#if defined(__AVX512F__)
  return _mm512_movepi64_mask(reinterpret_cast<__m512i>(condition)) != 0;
#elif defined(__AVX2__)
  return _mm256_movemask_pd(reinterpret_cast<__m256d>(condition)) != 0;
#elif defined(__SSE2__)
  return _mm_movemask_pd(reinterpret_cast<__m128d>(condition)) != 0;
#else
  std::int64_t found = 0;
  for (std::size_t lane = 0; lane < lane_count; ++lane) found |= condition[lane];
  return found != 0;
#endif
}

/// The upper half of the significand, so that the product of two such numbers is exact.
inline Lanes upper_half(Lanes lanes) noexcept {
  Bits bits;
  __builtin_memcpy(&bits, &lanes, sizeof bits);
  bits &= ~((std::int64_t{1} << 27) - 1);
  __builtin_memcpy(&lanes, &bits, sizeof bits);
  return lanes;
}

/// What a product lacks that was rounded, or that is known to come near to `product`: itself
/// rounded only where it is subnormal. One operation where products and sums can be fused, else by
/// halves (Veltkamp 1968, Dekker 1971), which gives the same bits; near the ends of what doubles
/// hold, where it doesn't, number by number.
inline Lanes lost_in_product(Lanes left, Lanes right, Lanes product) noexcept {
#if defined(__AVX512F__)
  return _mm512_fmsub_pd(left, right, product);
#elif defined(__FMA__)
  return _mm256_fmsub_pd(left, right, product);
#else
  Lanes lost{};
#if !defined(__FP_FAST_FMA)
  constexpr double splitter = 0x1p27 + 1.0;
  const Lanes left_upper = splitter * left - (splitter * left - left);
  const Lanes right_upper = splitter * right - (splitter * right - right);
  const Lanes left_lower = left - left_upper;
  const Lanes right_lower = right - right_upper;
  lost =
      ((left_upper * right_upper - product) + left_upper * right_lower + left_lower * right_upper) +
      left_lower * right_lower;
  const Bits is_tiny = (product < 0x1p-960) & (product > -0x1p-960);
  const Bits is_huge =
      (left > 0x1p990) | (left < -0x1p990) | (right > 0x1p990) | (right < -0x1p990);
  if (!any(((left != 0.0) & (right != 0.0) & is_tiny) | is_huge)) return lost;
#endif
  for (std::size_t lane = 0; lane < lane_count; ++lane) {
    lost[lane] = __builtin_fma(left[lane], right[lane], -product[lane]);
  }
  return lost;
#endif
}

/// A sum that is not rounded: `value` is the rounded one, `error` what it lacks (Ogita, Rump and
/// Oishi 2005). Where `value` is infinite or NaN, `error` may be NaN.
struct LongLanes {
  Lanes value;
  Lanes error;

  /// Adds a term of any size, without loss (Knuth 1969).
  void add(Lanes term) noexcept {
    const Lanes sum = value + term;
    const Lanes added = sum - value;
    error += (value - (sum - added)) + (term - added);
    value = sum;
  }

  void add(const LongLanes& other) noexcept {
    add(other.value);
    error += other.error;
  }

  /// Adds a term at half of the cost. Where a term exceeds the value, up to half a unit of its last
  /// place is lost: of terms of one sign at most one such unit of the sum in all, as values double
  /// then, and of others one of the sum of their sizes.
  void add_growing(Lanes term) noexcept {
    const Lanes sum = value + term;
    error += term - (sum - value);
    value = sum;
  }

  void add_growing(const LongLanes& other) noexcept {
    add_growing(other.value);
    error += other.error;
  }

  /// Adds the square of `number` without rounding it, if all terms are such.
  void add_square(Lanes number) noexcept {
    const Lanes square = number * number;
    add_growing(square);
    error += lost_in_product(number, number, square);
  }

  /// Adds the square of `number` plus what that lacks.
  void add_square(Lanes number, Lanes lacking) noexcept {
    add_square(number);
    error += 2.0 * lacking * number;
  }

  /// Less a number that is smaller or cancels little, rounded once.
  Lanes less(Lanes smaller) const noexcept {
    const Lanes difference = value - smaller;
    return difference + (((value - difference) - smaller) + error);
  }

  /// Rounded. NaN where the value isn't finite.
  Lanes sum() const noexcept { return value + error; }

  /// Rounded, infinities included.
  Lanes rounded() const noexcept { return select(error == error, sum(), value); }
};

/// A product that is not rounded.
inline LongLanes product_of(Lanes left, Lanes right) noexcept {
  const Lanes product = left * right;
  return {product, lost_in_product(left, right, product)};
}

/// The sum of two, rounded: within one and a half units of the last place of what they stand for.
inline Lanes rounded_sum(const LongLanes& left, const LongLanes& right) noexcept {
  return LongLanes{left.value + right.value, left.error + right.error}.rounded();
}

/// The same. NaN where a value isn't finite.
inline Lanes sum_of(const LongLanes& left, const LongLanes& right) noexcept {
  return (left.value + right.value) + (left.error + right.error);
}

/// What `difference`, which is `left - right` as it is rounded, lacks (Knuth 1969).
inline Lanes lost(Lanes left, Lanes right, Lanes difference) noexcept {
  const Lanes taken = difference - left;
  return (left - (difference - taken)) - (right + taken);
}

/// `scale` times `number` without loss, for scales of at most 26 bits.
inline LongLanes exact_multiple(double scale, const LongLanes& number) noexcept {
  const Lanes upper = upper_half(number.value);
  return {scale * upper, scale * (number.value - upper) + scale * number.error};
}

}  // namespace quernbrook::row_kernels::QUERNBROOK_INSTRUCTION_SET
