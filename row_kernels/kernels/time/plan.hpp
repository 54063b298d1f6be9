#pragma once

#include <cstddef>

#include "row_function.hpp"

namespace quernbrook::row_kernels {

/// The columns that are computed together: a cache line of each row.
inline constexpr std::size_t tile_columns = 8;

/// What the loops of one function are told of it.
struct Plan {
  /// The number of rows held.
  std::size_t window;
  /// How those are cut into parts, if they are: all but the last are of `part_length` rows.
  std::size_t part_length = 0;
  std::size_t part_count = 0;
  std::size_t last_part_length = 0;
  /// A factor and a term, or divisor, of some statistics.
  double factor = 1.0;
  double term = 0.0;
  /// Of an exponential mean; see there.
  const double* weights = nullptr;
};

/// The loops of one statistic over tiles of columns. A tile is one block of memory that begins with
/// the rows: that of number r, counted from the first row ever seen, is at place r % window, with a
/// line of `tile_columns` cells for each argument, and NaN where there is none yet. The first row
/// of an `advance` gets place `place`.
struct TileLoops {
  std::size_t arguments;

  /// The doubles that a tile takes.
  std::size_t (*tile_size)(const Plan& plan);
  /// Computes `row_count` rows of the tile's first `columns` columns, or of as many more as fill
  /// registers. `is_filling` tells whether they begin among the
  /// first `window` rows; places that no row has had yet hold anything then.
  void (*advance)(const Plan& plan, double* tile, std::size_t columns, std::size_t place,
                  bool is_filling, const Rows* arguments, std::ptrdiff_t row_count, double* result,
                  std::ptrdiff_t result_stride);
  /// Makes all else in a tile anew from the rows, where the next row gets place `place`. Places
  /// that no row has had yet hold NaN then.
  void (*rebuild)(const Plan& plan, double* tile, std::size_t place);
};

}  // namespace quernbrook::row_kernels
