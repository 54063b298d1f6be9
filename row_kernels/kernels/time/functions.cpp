#include "time/functions.hpp"

#include <algorithm>
#include <cmath>
#include <stdexcept>

#include "time/instruction_set.hpp"
#include "time/tiled_function.hpp"

namespace quernbrook::row_kernels {
namespace {

void require_window(std::size_t window) {
  if (window < 1) throw std::invalid_argument("window must be at least 1; got 0");
}

// Parts near the root of the window need the least memory, and the work at the beginning of one,
// which goes through all others, stays a small share. Short windows are cheapest in one part.
std::size_t usual_part_length(std::size_t window) {
  constexpr std::size_t short_window = 32;
  if (window <= short_window) return window;
  return static_cast<std::size_t>(2.0 * std::sqrt(static_cast<double>(window)));
}

std::unique_ptr<WindowFunction> in_parts(std::size_t window, std::size_t part_length,
                                         double divisor, const TileLoops& loops) {
  const std::size_t parts = (window + part_length - 1) / part_length;
  const Plan plan{window, part_length, parts, window - (parts - 1) * part_length, divisor};
  return std::make_unique<TiledFunction>(window, plan, loops);
}

std::unique_ptr<WindowFunction> simple(std::size_t window, const TileLoops& loops) {
  require_window(window);
  return in_parts(window, usual_part_length(window), static_cast<double>(window), loops);
}

std::unique_ptr<WindowFunction> of_ends(std::size_t window, const TileLoops& loops) {
  require_window(window);
  return std::make_unique<TiledFunction>(window, Plan{.window = window + 1}, loops);
}

}  // namespace

std::unique_ptr<WindowFunction> make_delay(std::size_t window) {
  return of_ends(window, statistics_loops().delay);
}

std::unique_ptr<WindowFunction> make_delta(std::size_t window) {
  return of_ends(window, statistics_loops().delta);
}

std::unique_ptr<WindowFunction> make_sum(std::size_t window) {
  return simple(window, statistics_loops().sum);
}

std::unique_ptr<WindowFunction> make_mean(std::size_t window) {
  return simple(window, statistics_loops().mean);
}

std::unique_ptr<WindowFunction> make_maximum(std::size_t window) {
  return simple(window, statistics_loops().maximum);
}

std::unique_ptr<WindowFunction> make_minimum(std::size_t window) {
  return simple(window, statistics_loops().minimum);
}

std::unique_ptr<WindowFunction> make_maximum_age(std::size_t window) {
  return simple(window, statistics_loops().maximum_age);
}

std::unique_ptr<WindowFunction> make_minimum_age(std::size_t window) {
  return simple(window, statistics_loops().minimum_age);
}

}  // namespace quernbrook::row_kernels
