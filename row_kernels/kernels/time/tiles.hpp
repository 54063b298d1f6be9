#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <memory>

#include "time/plan.hpp"

namespace quernbrook::row_kernels {

struct FreeCells {
  void operator()(double* cells) const noexcept { std::free(cells); }
};

/// Memory that begins on a cache line.
using AlignedCells = std::unique_ptr<double[], FreeCells>;

/// Throws std::bad_alloc.
AlignedCells allocate_cells(std::size_t size);

/// How the columns of rows fall into tiles. The last tile is half a one where that is enough, and
/// ends with the last column, so that it may share columns with the one before, which then get the
/// same bits twice. Only rows narrower than a tile leave cells of it unused.
class Tiles {
 public:
  explicit Tiles(std::ptrdiff_t column_count) noexcept
      : column_count_(static_cast<std::size_t>(column_count)) {}

  std::size_t count() const noexcept { return (column_count_ + tile_columns - 1) / tile_columns; }
  bool is_narrow() const noexcept { return column_count_ < tile_columns; }

  /// The number of a tile's columns, and the first of them.
  std::size_t width(std::size_t tile) const noexcept {
    if (is_narrow()) return column_count_;
    const std::size_t left = column_count_ - tile * tile_columns;
    return left <= half ? half : tile_columns;
  }
  std::size_t column(std::size_t tile) const noexcept {
    return std::min(tile * tile_columns, column_count_ - width(tile));
  }

  /// Whether half a tile is all that is wanted.
  bool is_half(std::size_t tile) const noexcept { return width(tile) <= half; }

 private:
  static constexpr std::size_t half = tile_columns / 2;

  std::size_t column_count_;
};

}  // namespace quernbrook::row_kernels
