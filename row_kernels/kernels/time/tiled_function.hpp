#pragma once

#include <utility>
#include <vector>

#include "time/plan.hpp"
#include "time/tiles.hpp"

namespace quernbrook::row_kernels {

/// A function of the newest rows whose work is done by loops over tiles of columns.
class TiledFunction final : public WindowFunction {
 public:
  /// `window` is what it is called by; the plan's is the number of rows held.
  /// The loops for half a tile may be those of a narrower instruction set.
  TiledFunction(std::size_t window, const Plan& plan, const TileLoops& loops,
                const TileLoops& half_loops, std::vector<double> weights = {})
      : window_(window),
        plan_(plan),
        loops_(loops),
        half_loops_(half_loops),
        weights_(std::move(weights)) {
    plan_.weights = weights_.data();
  }
  TiledFunction(const TiledFunction&) = delete;
  TiledFunction& operator=(const TiledFunction&) = delete;

  std::size_t argument_count() const noexcept override { return loops_.arguments; }
  std::size_t window() const noexcept override { return window_; }
  std::size_t capacity() const noexcept override { return plan_.window; }

  void run(const Rows* arguments, std::ptrdiff_t row_count, std::ptrdiff_t column_count,
           double* result) override;
  WindowState state() const override;
  void restore(const WindowState& state) override;

 private:
  // The rows that one tile is led through before the next has its turn.
  static constexpr std::ptrdiff_t strip_rows = 64;
  static constexpr std::size_t most_arguments = 2;

  std::size_t place() const noexcept { return static_cast<std::size_t>(count_) % plan_.window; }
  bool is_filling() const noexcept { return count_ < static_cast<std::int64_t>(plan_.window); }
  double* tile(const AlignedCells& cells, std::size_t index) const noexcept {
    return cells.get() + index * tile_size_;
  }
  AlignedCells new_tiles(std::ptrdiff_t column_count) const;
  void run_strip(const Rows* arguments, std::ptrdiff_t row_count, double* result);
  void run_narrow_strip(const Rows* arguments, std::ptrdiff_t row_count, double* result);

  std::size_t window_;
  Plan plan_;
  TileLoops loops_;
  TileLoops half_loops_;
  std::vector<double> weights_;
  std::size_t tile_size_ = loops_.tile_size(plan_);
  std::int64_t count_ = 0;
  std::ptrdiff_t column_count_ = 0;
  AlignedCells cells_;
};

}  // namespace quernbrook::row_kernels
