#include "time/tiled_function.hpp"

#include <algorithm>
#include <limits>
#include <new>
#include <stdexcept>
#include <string>
#include <utility>

namespace quernbrook::row_kernels {

AlignedCells allocate_cells(std::size_t size) {
  constexpr std::size_t line = 64;
  if (size > std::numeric_limits<std::ptrdiff_t>::max() / sizeof(double) - line) {
    throw std::bad_alloc();
  }
  // Whole lines, and one at least.
  const std::size_t bytes = (size * sizeof(double) / line + 1) * line;
  auto* cells = static_cast<double*>(std::aligned_alloc(line, bytes));
  if (cells == nullptr) throw std::bad_alloc();
  return AlignedCells(cells);
}

void TiledFunction::run(const Rows* arguments, std::ptrdiff_t row_count,
                        std::ptrdiff_t column_count, double* result) {
  if (row_count <= 0) return;
  if (count_ == 0) {
    cells_ = new_tiles(column_count);
    column_count_ = column_count;
  } else if (column_count != column_count_) {
    throw std::invalid_argument("row has " + std::to_string(column_count) +
                                " values; the window holds rows of " +
                                std::to_string(column_count_));
  }
  if (column_count == 0) {
    count_ += row_count;
    return;
  }
  Rows next[most_arguments];
  std::copy_n(arguments, loops_.arguments, next);
  while (row_count > 0) {
    const std::ptrdiff_t rows = std::min(row_count, strip_rows);
    if (Tiles(column_count_).is_narrow()) {
      run_narrow_strip(next, rows, result);
    } else {
      run_strip(next, rows, result);
    }
    count_ += rows;
    row_count -= rows;
    result += rows * column_count_;
    for (std::size_t a = 0; a < loops_.arguments; ++a) next[a].first = next[a].row(rows);
  }
}

void TiledFunction::run_strip(const Rows* arguments, std::ptrdiff_t row_count, double* result) {
  const Tiles tiles(column_count_);
  for (std::size_t index = 0; index < tiles.count(); ++index) {
    const std::size_t column = tiles.column(index);
    Rows cells[most_arguments];
    for (std::size_t a = 0; a < loops_.arguments; ++a) {
      cells[a] = {arguments[a].first + column, arguments[a].stride};
    }
    const TileLoops& loops = tiles.is_half(index) ? half_loops_ : loops_;
    loops.advance(plan_, tile(cells_, index), tiles.width(index), place(), is_filling(), cells,
                  row_count, result + column, column_count_);
  }
}

// Through rows as wide as a tile.
void TiledFunction::run_narrow_strip(const Rows* arguments, std::ptrdiff_t row_count,
                                     double* result) {
  constexpr std::size_t size = static_cast<std::size_t>(strip_rows) * tile_columns;
  double wide[most_arguments][size] = {};
  double wide_result[size];
  Rows cells[most_arguments];
  for (std::size_t a = 0; a < loops_.arguments; ++a) {
    for (std::ptrdiff_t row = 0; row < row_count; ++row) {
      std::copy_n(arguments[a].row(row), column_count_,
                  wide[a] + row * static_cast<std::ptrdiff_t>(tile_columns));
    }
    cells[a] = {wide[a], tile_columns};
  }
  const TileLoops& loops = Tiles(column_count_).is_half(0) ? half_loops_ : loops_;
  loops.advance(plan_, cells_.get(), static_cast<std::size_t>(column_count_), place(), is_filling(),
                cells, row_count, wide_result, tile_columns);
  for (std::ptrdiff_t row = 0; row < row_count; ++row) {
    std::copy_n(wide_result + row * static_cast<std::ptrdiff_t>(tile_columns), column_count_,
                result + row * column_count_);
  }
}

WindowState TiledFunction::state() const {
  WindowState state{count_, column_count_, {}};
  const std::size_t width = static_cast<std::size_t>(column_count_);
  const std::size_t held =
      static_cast<std::size_t>(std::min(count_, static_cast<std::int64_t>(plan_.window)));
  state.rows.assign(loops_.arguments, std::vector<double>(held * width));
  const Tiles tiles(column_count_);
  for (std::size_t index = 0; held > 0 && index < tiles.count(); ++index) {
    for (std::size_t row = 0; row < held; ++row) {
      const std::size_t from = (place() + plan_.window - held + row) % plan_.window;
      for (std::size_t a = 0; a < loops_.arguments; ++a) {
        std::copy_n(tile(cells_, index) + (from * loops_.arguments + a) * tile_columns,
                    tiles.width(index), state.rows[a].data() + row * width + tiles.column(index));
      }
    }
  }
  return state;
}

void TiledFunction::restore(const WindowState& state) {
  if (state.count < 0 || state.column_count < 0) {
    throw std::invalid_argument("a window can't have " + std::to_string(state.count) + " rows of " +
                                std::to_string(state.column_count) + " values");
  }
  const std::size_t width = static_cast<std::size_t>(state.column_count);
  const std::size_t held =
      static_cast<std::size_t>(std::min(state.count, static_cast<std::int64_t>(plan_.window)));
  if (state.rows.size() != loops_.arguments) {
    throw std::invalid_argument("the state has rows of " + std::to_string(state.rows.size()) +
                                " inputs; the function takes " + std::to_string(loops_.arguments));
  }
  for (const std::vector<double>& rows : state.rows) {
    if (rows.size() != held * width) {
      throw std::invalid_argument(std::to_string(rows.size()) + " values for " +
                                  std::to_string(held) + " rows of " + std::to_string(width));
    }
  }
  AlignedCells cells = new_tiles(state.column_count);
  const auto place = static_cast<std::size_t>(state.count) % plan_.window;
  const Tiles tiles(state.column_count);
  for (std::size_t index = 0; index < tiles.count(); ++index) {
    std::fill_n(tile(cells, index), plan_.window * loops_.arguments * tile_columns,
                std::numeric_limits<double>::quiet_NaN());
    for (std::size_t row = 0; row < held; ++row) {
      const std::size_t to = (place + plan_.window - held + row) % plan_.window;
      for (std::size_t a = 0; a < loops_.arguments; ++a) {
        std::copy_n(state.rows[a].data() + row * width + tiles.column(index), tiles.width(index),
                    tile(cells, index) + (to * loops_.arguments + a) * tile_columns);
      }
    }
    loops_.rebuild(plan_, tile(cells, index), place);
  }
  count_ = state.count;
  column_count_ = state.column_count;
  cells_ = std::move(cells);
}

AlignedCells TiledFunction::new_tiles(std::ptrdiff_t column_count) const {
  const std::size_t tile_count = Tiles(column_count).count();
  const std::size_t most = std::numeric_limits<std::ptrdiff_t>::max() / sizeof(double);
  if (tile_count > 0 && tile_size_ > most / tile_count) throw std::bad_alloc();
  return allocate_cells(tile_count * tile_size_);
}

}  // namespace quernbrook::row_kernels
