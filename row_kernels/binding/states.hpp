#pragma once

#include <nanobind/nanobind.h>

#include <cstddef>
#include <cstdint>

namespace quernbrook::row_kernels::binding {

namespace nb = nanobind;

/// {"count": count, "window": window}.
nb::dict new_state_data(std::int64_t count, std::size_t window);

nb::object saved_state(const char* name, const nb::dict& data);

/// Reads "count". Raises KeyError, TypeError for a count that is no int, and ValueError for one
/// that is too large and for data that were saved with another window.
std::int64_t saved_count(const nb::object& state_data, std::size_t window);

/// How many rows a window of `capacity` rows holds after `count`.
std::size_t rows_held(std::int64_t count, std::size_t capacity) noexcept;

/// Raises ValueError if a window of `capacity` rows doesn't hold `rows` of them after `count`.
void require_row_count(std::size_t rows, std::int64_t count, std::size_t capacity);

}  // namespace quernbrook::row_kernels::binding
